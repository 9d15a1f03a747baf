-- tour.lua: a short walk through what a stand-alone orvexScript run offers: its arguments, LPeg and
-- the LuaJIT FFI. Try it as
--   orvexScript examples/tour.lua name=Ada "settings=size = 3, colour=teal" 1.5 -2 40
-- (only the first "=" of an argument splits it, so arg.settings is "size = 3, colour=teal").
local ffi = require("ffi")

local sections = 0
local function heading(title)
    sections = sections + 1
    print(("%s== %s"):format(sections > 1 and "\n" or "", title))
end

-- Arguments: name=value pairs arrive by name, everything else numbered in arg[1..arg.n].
heading("arguments")
local names = {}
for key in pairs(arg) do
    if type(key) == "string" and key ~= "n" then
        names[#names + 1] = key
    end
end
table.sort(names)
for _, key in ipairs(names) do
    print(("arg.%s = %q"):format(key, arg[key]))
end
print(("%d numbered argument(s)"):format(arg.n))
for i = 1, arg.n do
    print(("arg[%d] = %s"):format(i, arg[i]))
end
print(("Hello, %s!"):format(arg.name or "world"))

-- LPeg: a small grammar for "key = value" lists, and one that picks the numbers out of any text.
heading("LPeg")
local P, R, S, C, Cf, Cg, Ct = lpeg.P, lpeg.R, lpeg.S, lpeg.C, lpeg.Cf, lpeg.Cg, lpeg.Ct
local space = S(" \t") ^ 0
local word = C((R("az", "AZ", "09") + S("_-.")) ^ 1)
local pair = Cg(space * word * space * "=" * space * word * space)
local settings = Cf(Ct("") * (pair * S(",;") ^ -1) ^ 0, rawset) * -1

local digits = R("09") ^ 1
local number = (S("+-") ^ -1 * digits * (P(".") * digits) ^ -1) / tonumber
local numbers = Ct((number + 1) ^ 0)

local text = arg.settings or "width = 640, height=480; title=tour"
local parsed = settings:match(text)
if parsed then
    local keys = {}
    for key in pairs(parsed) do
        keys[#keys + 1] = key
    end
    table.sort(keys)
    for _, key in ipairs(keys) do
        print(("%-8s -> %s"):format(key, parsed[key]))
    end
else
    print(("not a key=value list: %q"):format(text))
end

local source = arg.n > 0 and table.concat(arg, " ", 1, arg.n) or "3 apples, 2.5 pears and -1 lemon"
local found = numbers:match(source)
local sum = 0
for _, value in ipairs(found) do
    sum = sum + value
end
print(("numbers in %q: %d, adding up to %g"):format(source, #found, sum))

-- FFI: a libc function called directly, and a C struct with arithmetic through a metatype.
heading("FFI")
ffi.cdef([[
size_t strlen(const char *text);
typedef struct { double x, y; } tour_point;
]])
local greeting = "orvexScript"
print(("strlen(%q) = %d"):format(greeting, tonumber(ffi.C.strlen(greeting))))

local Point
Point = ffi.metatype("tour_point", {
    __add = function(a, b) return Point(a.x + b.x, a.y + b.y) end,
    __mul = function(p, k) return Point(p.x * k, p.y * k) end,
    __tostring = function(p) return ("(%g, %g)"):format(p.x, p.y) end,
    __index = { length = function(p) return math.sqrt(p.x * p.x + p.y * p.y) end },
})
local a, b = Point(3, 4), Point(1.5, -2)
print(("%s + %s = %s"):format(tostring(a), tostring(b), tostring(a + b)))
print(("%s * 2 = %s, length of %s = %g"):format(tostring(a), tostring(a * 2), tostring(a), a:length()))
print(("sizeof(tour_point) = %d bytes"):format(ffi.sizeof("tour_point")))

return 0
