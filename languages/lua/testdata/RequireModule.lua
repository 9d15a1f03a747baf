-- Run by the stock luajit program with LUA_CPATH at the build's qmscript.so: the module equips this
-- very state. Prints "module ok" when every check holds; an assertion names the one that failed.
class = { kept = true }
assert(orvex == nil, "a stock state has no library table")
local library = require("qmscript")
assert(library == orvex and orvex._VERSION == "7.00", "require gives the library table with its version")
assert(_VERSION == "Lua 5.1", "the interpreter's own version stays")
assert(class.kept and type(class._ScriptObject) == "function", "an existing class table keeps its entries")
assert(debug.getregistry()._ScriptObject.__index ~= nil, "remote object metatable")
assert(HexData("0A 0b ff").Size == 3 and MemBlock(2).Size == 2, "block constructors")
os.exit(5)
assert(_EXITCODE == 5, "os.exit only records its code")
assert(iif(false, 1, 2) == 2 and type(DispatchEvent) == "function", "the prelude ran")
assert(getmetatable(_G).__index and not_a_global == nil, "global look-up without an active object")
Using({ answer = 42 })
assert(answer == 42, "the active object answers unknown globals")
print("module ok")
