// Runs plain Lua programs on this interpreter and on LuaJIT and compares what they return: each
// program folds its results into one string. Programs keep to what both offer (string methods,
// no libraries, no hash order).
#include <gtest/gtest.h>
#include <lua.hpp>

#include <string>

#include "datalua/DataLua.h"
#include "values/model/ScriptVal.h"

namespace orvexScript::datalua
{
namespace
{

// Shared by the programs: a collector that turns any values into one line.
const char kPrelude[] = "local out = {}\n"
                        "local function put(...)\n"
                        "  for i = 1, select('#', ...) do out[#out + 1] = tostring((select(i, ...))) end\n"
                        "end\n"
                        "local function result() local s = '' for i = 1, #out do s = s .. out[i] .. '|' end return s end\n";

const char *const kPrograms[] = {
    // closures, shared upvalues, fresh cells per iteration
    "local function counter() local n = 0 return function() n = n + 1 return n end, function() return n end end\n"
    "local inc, get = counter() inc() inc() put(get())\n"
    "local fs = {} for i = 1, 3 do fs[i] = function() return i end end put(fs[1](), fs[2](), fs[3]())\n"
    "local ws = {} local j = 0 while j < 3 do j = j + 1 local k = j ws[j] = function() k = k * 10 return k end end\n"
    "put(ws[1](), ws[1](), ws[3]())\n"
    "local function outer() local a = 1 local function mid() local function inner() a = a + 1 return a end return inner end return mid() end\n"
    "local f = outer() put(f(), f())\n"
    "return result()",

    // varargs and multiple results
    "local function pack(...) return select('#', ...), ... end\n"
    "put(pack()) put(pack(nil, nil)) put(pack(1, 2, 3))\n"
    "local function two() return 1, 2 end\n"
    "put(two(), two()) put((two())) put(({two(), two()})[3], #{two(), two()}, #{two(), (two())})\n"
    "local function tail(...) local a, b = ... return b, a end put(tail(7, 8, 9))\n"
    "put(select(-1, 1, 2, 3), select(2, 'a', 'b', 'c'))\n"
    "local t = {unpack({1, 2, 3})} put(#t, unpack(t, 2))\n"
    "local a, b, c = (function() return 1 end)() put(a, b, c)\n"
    "return result()",

    // scoping and control flow
    "local x = 1 do local x = 2 put(x) end put(x)\n"
    "local s = 0 for i = 10, 1, -3 do s = s + i end put(s)\n"
    "for i = 1, 0 do put('never') end for i = 1.5, 3 do put(i) end\n"
    "local n = 0 repeat local m = n n = n + 1 until m >= 3 put(n)\n"
    "local i = 0 while true do i = i + 1 if i > 5 then break end end put(i)\n"
    "for k, v in ipairs({'a', 'b', nil, 'd'}) do put(k, v) end\n"
    "local function f(n) if n < 2 then return n end return f(n - 1) + f(n - 2) end put(f(15))\n"
    "if nil then put(1) elseif false then put(2) else put(3) end\n"
    "put(1 and 2, nil and 1, false or 'x', nil or false, not nil, not 0)\n"
    "return result()",

    // arithmetic, numbers and coercion
    "put(7 % 3, -7 % 3, 7 % -3, 5.5 % 2, 2 ^ 10, 10 / 4, -2 ^ 2, 1e300 * 1e10, -(0/0) ~= -(0/0))\n"
    "put('10' + 5, '3' * '4', 10 .. 20, 0x10, 1e2, .5, 3.0, 1/3, 100000000000000, 2^53)\n"
    "put(tonumber('0x1F'), tonumber('  12  '), tonumber('1e1'), tonumber('z', 36), tonumber('ff', 16), tonumber('8', 8), tonumber(''), tonumber('1 2'))\n"
    "put(1 == 1.0, '1' == 1, 'a' < 'b', 'a' < 'ab', 'Z' < 'a', 2 <= 2, #'hello')\n"
    "return result()",

    // string methods and patterns
    "local s = 'Hello World'\n"
    "put(s:len(), s:upper(), s:lower(), s:sub(1, 5), s:sub(-5), s:sub(3, -3), s:sub(0), s:sub(20), s:rep(2), s:reverse())\n"
    "put(s:byte(1), s:byte(-1), s:byte(1, 3)) put(s.char(72, 105))\n"
    "put(s:find('o'), s:find('o', 6), s:find('l+'), s:find('xyz'), s:find('o W', 1, true), s:find(''), s:find('', 20))\n"
    "put(s:match('(%a+) (%a+)'), s:match('()ll()'), s:match('^Hello'), s:match('^World'), s:match('%s(.*)$'))\n"
    "put(('key = value'):match('^(%w+)%s*=%s*(%w+)$'), ('[[x]]'):match('%[(%b[])%]'), ('THE (quick) fox'):find('%f[%a]%a+%f[%A]', 5))\n"
    "put(('abc'):gsub('', '-'), ('hello world'):gsub('o', '0', 1), ('abc'):gsub('%w', '%0%0'), ('x=1, y=2'):gsub('(%w+)=(%w+)', '%2=%1'))\n"
    "put(('hello'):gsub('l', {l = 'L'}), ('abc'):gsub('.', function(c) return c:byte() end), ('a.b'):gsub('%.', '%%'))\n"
    "local words = {} for w in ('one two  three'):gmatch('%a+') do words[#words + 1] = w end put(#words, words[3])\n"
    "for k, v in ('a=1, b=2'):gmatch('(%w+)=(%w+)') do put(k, v) end\n"
    "put(('%d|%5.2f|%s|%q|%x|%X|%o|%e|%g|%c|%%|%-5s|%05d'):format(42, 3.14159, 'str', 'a\\n\"b', 255, 255, 8, 12345.678, 0.0001, 65, 'ab', 42))\n"
    "put(('%s %s'):format(1, true and 'yes'), ('%5.1s|'):format('abc'), ('%i'):format(-3.7))\n"
    "return result()",

    // metatables
    "local V = {} V.__index = V\n"
    "V.__add = function(a, b) return setmetatable({x = a.x + b.x}, V) end\n"
    "V.__eq = function(a, b) return a.x == b.x end\n"
    "V.__lt = function(a, b) return a.x < b.x end\n"
    "V.__le = function(a, b) return a.x <= b.x end\n"
    "V.__concat = function(a, b) return 'V' .. (type(a) == 'table' and a.x or a) .. (type(b) == 'table' and b.x or b) end\n"
    "V.__unm = function(a) return setmetatable({x = -a.x}, V) end\n"
    "V.__call = function(self, y) return self.x + y end\n"
    "V.__tostring = function(v) return 'V(' .. v.x .. ')' end\n"
    "function V.new(x) return setmetatable({x = x}, V) end\n"
    "function V:get() return self.x end\n"
    "local a, b = V.new(1), V.new(2)\n"
    "put((a + b).x, a == V.new(1), a ~= b, a < b, b <= a, a > b, a .. '!', 'x' .. b, (-a).x, a(10), tostring(a), a:get())\n"
    "local log = {} local p = setmetatable({}, {__newindex = function(t, k, v) log[#log + 1] = k rawset(t, k, v * 2) end})\n"
    "p.a = 1 p.a = 5 put(p.a, #log)\n"
    "local d = setmetatable({}, {__index = {inherited = 'yes'}}) put(d.inherited, rawget(d, 'inherited'))\n"
    "local prot = setmetatable({}, {__metatable = 'locked'}) put(getmetatable(prot), pcall(setmetatable, prot, {}))\n"
    "put(getmetatable('x').__index == getmetatable('y').__index, rawequal(a, a), rawequal(a, V.new(1)))\n"
    "return result()",

    // pcall, error and xpcall
    "put(pcall(error, 'plain', 0)) put(type(select(2, pcall(error, {code = 1}))))\n"
    "put(select(2, pcall(error)))\n"
    "local function thrower(l) error('lvl', l) end\n"
    "put(pcall(thrower, 1)) put(pcall(thrower, 2)) put(pcall(thrower, 0))\n"
    "put(xpcall(function() error('x', 0) end, function(e) return 'handled ' .. e end))\n"
    "put(pcall(function() local t = nil return t.field end))\n"
    "put(pcall(function() return undefinedglobal.x end))\n"
    "put(pcall(function() return 1 + {} end))\n"
    "put(pcall(function() return #nil end))\n"
    "put(pcall(function() local s = 'x' return s:nomethod() end))\n"
    "put(pcall(assert, false)) put(pcall(assert, nil, 'custom')) put(pcall(assert, 1, 2))\n"
    "put(pcall(function() error(setmetatable({}, {__tostring = function() return 'obj' end})) end))\n"
    "put(select('#', pcall(function() end)))\n"
    "return result()",

    // environments, loading and the base library
    "local env = {print = print} local f = loadstring('x = 5 return x') setfenv(f, env) put(f(), env.x, x)\n"
    "put(getfenv(1) == _G, getfenv(0) == _G, _G._G == _G, _VERSION)\n"
    "local g = loadstring('local a, b = ... return a * b') put(g(6, 7))\n"
    "put(loadstring('syntax error here'))\n"
    "local parts = {'return ', '1 + ', '2'} local i = 0 put(load(function() i = i + 1 return parts[i] end)())\n"
    "put(type(nil), type(1), type('s'), type({}), type(print), type(type))\n"
    "put(tostring(nil), tostring(true), tostring(12), tostring(-0.5))\n"
    "local t = {} rawset(t, 'k', 'v') put(rawget(t, 'k'), next({}), next({9}))\n"
    "put(#{1, 2, 3, nil}, #{n = 1}, #'')\n"
    "local function setter() setfenv(2, {put = put, tostring = tostring}) end\n"
    "local function user() setter() return tostring(x) end put(user())\n"
    "return result()",

    // assignment order and table constructors
    "local a, b, c = 1 put(a, b, c)\n"
    "local x, y = 1, 2 x, y = y, x put(x, y)\n"
    "local t = {} local i = 1 i, t[i] = i + 1, 20 put(i, t[1], t[2])\n"
    "local u = {1, 2, 3, n = 'n', [10] = 10, [1.5] = 'f', 'last'} put(#u, u[4], u.n, u[10], u[1.5])\n"
    "local nested = {a = {b = {c = 'deep'}}} put(nested.a.b.c, nested['a']['b'].c)\n"
    "local s = {} for k = 1, 100 do s[k] = k end for k = 1, 100, 2 do s[k] = nil end local n = 0 for _ in pairs(s) do n = n + 1 end put(n)\n"
    "local big = {} for k = 1, 60 do big[k] = k end local copy = {unpack(big)} put(#copy, copy[60])\n"
    "return result()",

    // tables: borders, traversal while clearing, numeric keys of every kind
    "local t = {} for i = 1, 20 do t[i] = i * i end put(#t) t[20] = nil put(#t)\n"
    "local c = 0 for k in pairs(t) do t[k] = nil c = c + 1 end put(c, next(t))\n"
    "local m = {} m[1] = 'a' m[2.0] = 'b' m['1'] = 'c' m[-1] = 'd' m[0] = 'e' put(m[1], m[2], m['1'], m[-1], m[0], #m)\n"
    "local holes = {n = 0} for i = 100, 1, -1 do holes[i] = i end put(#holes, holes[50])\n"
    "local keys = {} for k, v in ipairs({5, 6, 7}) do keys[#keys + 1] = k .. '=' .. v end put(keys[1], keys[3])\n"
    "local sum = 0 for k, v in pairs({10, 20, 30}) do sum = sum + k * v end put(sum)\n"
    "local nan = 0/0 put(pcall(rawset, {}, nan, 1)) put(pcall(function() local q = {} q[nil] = 1 end))\n"
    "return result()",

    // more patterns: anchors, classes, captures, balance, frontier, limits of gsub
    "put(('  trim  '):match('^%s*(.-)%s*$'), ('2024-01-15'):match('(%d+)-(%d+)-(%d+)'))\n"
    "put(('a1b2c3'):gsub('%d', ''), ('a1b2c3'):gsub('%a', '', 2), ('abc'):gsub('^a', 'A'), ('aaa'):gsub('^a', 'b'))\n"
    "put(('f(a(b)c)d'):match('%b()'), ('THE END'):lower():gsub('%f[%w]%w', function(w) return w:upper() end))\n"
    "put(('x'):rep(3, nil), ('[test]'):find('[', 1, true), ('a+b'):find('+', 1, true), ('a.b'):find('.', 2, true))\n"
    "put(('hello'):find('l', -2), ('hello'):sub(2, 100), ('hello'):byte(10), ('%a'):len())\n"
    "put(('CamelCaseString'):gsub('(%u)', ' %1'), ('one;two;;three'):gsub(';;', ';'))\n"
    "put(('abc'):match('((a)(b))'), ('abc'):match('()b()'), ('  x'):find('%S'), ('[]'):match('^%[%]$'))\n"
    "return result()",

    // closures in loops with break, recursion through locals, upvalues shared by siblings
    "local fs = {} for i = 1, 10 do if i > 3 then break end local j = i * 2 fs[#fs + 1] = function() j = j + 1 return j end end\n"
    "put(#fs, fs[1](), fs[1](), fs[2](), fs[3]())\n"
    "local function mk() local v = 0 local function a() v = v + 1 return v end local function b() return v * 10 end return a, b end\n"
    "local a, b = mk() a() a() put(b())\n"
    "local function fact(n) return n <= 1 and 1 or n * fact(n - 1) end put(fact(10), fact(20))\n"
    "local even, odd function even(n) if n == 0 then return true end return odd(n - 1) end function odd(n) if n == 0 then return false end return even(n - 1) end put(even(10), odd(7))\n"
    "local acc = {} for _, name in ipairs({'x', 'y'}) do acc[name] = function() return name end end put(acc.x(), acc.y())\n"
    "local function va(...) local t = {...} return function() return unpack(t) end end put(va(1, nil, 3)())\n"
    "return result()",
};

std::string RunOnLuaJit(const std::string &program)
{
    lua_State *L = luaL_newstate();
    luaL_openlibs(L);
    std::string out;
    if (luaL_loadbuffer(L, program.data(), program.size(), "=cmp") != 0 || lua_pcall(L, 0, 1, 0) != 0)
        out = std::string("error: ") + lua_tostring(L, -1);
    else if (const char *s = lua_tostring(L, -1))
        out = s;
    lua_close(L);
    return out;
}

std::string RunHere(const std::string &program)
{
    const char *pieces[] = {program.data()};
    const size_t lengths[] = {program.size()};
    ScriptVal value;
    std::string error, text;
    if (!RunText(pieces, lengths, 1, "=cmp", value, error, text, nullptr, nullptr)) return "error: " + error;
    return text;
}

TEST(DataLuaCompare, ProgramsGiveWhatLuaJitGives)
{
    for (const char *program : kPrograms)
    {
        const std::string text = std::string(kPrelude) + program;
        const std::string expected = RunOnLuaJit(text);
        EXPECT_EQ(expected.rfind("error", 0), std::string::npos) << expected;
        EXPECT_EQ(RunHere(text), expected) << program;
    }
}

} // namespace
} // namespace orvexScript::datalua
