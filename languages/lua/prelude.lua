-- The prelude: runs once in every equipped Lua state, after the library table `orvex` is in place.
-- Short global names for library functions, small helpers, application shortcuts, help, and event
-- suites. Built into the library as text (languages/lua/CMakeLists.txt embeds it).

-- Library functions under short global names. The others stay reachable only through `orvex`.
readdir = orvex.readdir
createdir = orvex.createdir
removedir = orvex.removedir
pinghosts = orvex.pinghosts
fileexists = orvex.fileexists
direxists = orvex.direxists
executebg = orvex.executebg
getcurrentdir = orvex.getcurrentdir
setcurrentdir = orvex.setcurrentdir
getpid = orvex.getpid
touserdata = orvex.touserdata
wait = orvex.wait
stripname = orvex.stripname
isvalidname = orvex.isvalidname
fullpath = orvex.fullpath
exit = orvex.exit
getclipboard = orvex.getclipboard
setclipboard = orvex.setclipboard
StartServer = orvex.startserver
GetAppName = orvex.getappname
GetAppUUID = orvex.getappuuid
CreateUUID = orvex.createuuid
ToUNC = orvex.tounc
ScriptApp = orvex.scriptapp
AsyncScriptApp = orvex.asyncscriptapp
SendNotify = orvex.sendnotify
Using = orvex.using
SetActiveComp = orvex.using
GetUsing = orvex.getusing
GetActiveComp = orvex.getusing

function iif(condition, whenTrue, whenFalse)
    if condition then
        return whenTrue
    end
    return whenFalse
end

-- Runs f protected: nil and the message printed on failure, else its result (true for a false one).
-- A missing f prints errorText, so do_(loadstring(text)) prints the compile error.
function do_(f, errorText)
    if f == nil then
        print(errorText)
        return
    end
    local ok, result = pcall(f)
    if not ok then
        print(result)
        return nil
    end
    return result or true
end

function dostring(text)
    return do_(loadstring(text))
end

-- Prints each argument as a tree, one line per value, tables one tab deeper.
function dump(...)
    local count = select("#", ...)
    local values = { ... }
    for i = 1, count do
        local seen = {}
        function _dump(value, indent, keyText)
            print(indent .. keyText .. tostring(value))
            if type(value) ~= "table" then
                return
            end
            if seen[value] then
                print(indent .. "\t<<recursive reference>>")
                return
            end
            if value == _G and indent ~= "" then
                print(indent .. "\t<<global table>>")
                return
            end
            seen[value] = true
            for key, item in pairs(value) do
                _dump(item, indent .. "\t", tostring(key) .. " = ")
            end
        end
        _dump(values[i], "", "")
    end
end

-- The walk of dump as one string; a marker line stands where the table's own line would.
function dumptostring(...)
    local count = select("#", ...)
    local values = { ... }
    local lines = {}
    for i = 1, count do
        local seen = {}
        function _dumptostring(value, indent, keyText)
            if type(value) == "table" then
                if seen[value] then
                    lines[#lines + 1] = indent .. keyText .. "<<recursive reference>>\n"
                    return
                end
                if value == _G and indent ~= "" then
                    lines[#lines + 1] = indent .. keyText .. "<<global table>>\n"
                    return
                end
            end
            lines[#lines + 1] = indent .. keyText .. tostring(value) .. "\n"
            if type(value) ~= "table" then
                return
            end
            seen[value] = true
            for key, item in pairs(value) do
                _dumptostring(item, indent .. "\t", tostring(key) .. " = ")
            end
        end
        _dumptostring(values[i], "", "")
    end
    return table.concat(lines)
end

-- True if the whole text matches the pattern. `gsub` is a global: an active object may supply it.
function match(text, pattern)
    local rest, count = gsub(text, "^" .. pattern .. "$", "")
    return rest == "" and count == 1
end

-- Runs f in a fresh environment over the caller's: undeclared names it writes stay its own, reads fall
-- through to the caller's environment, and `globals` is the real global table at any depth.
function callglob(f, ...)
    local outer = getfenv(2)
    local env = setmetatable({ globals = rawget(outer, "globals") or outer }, { __index = outer })
    setfenv(f, env)
    return f(...)
end

function ldofile(fileName, ...)
    local chunk, message = loadfile(fileName)
    if not chunk then
        error(message, 2)
    end
    callglob(chunk, ...)
end

function ordered()
  sethashstate(0)
	return function(t) return t; end
end

-- Connections to the known applications: ScriptApp of the name with ip, timeout, uuid and subtype.
function Kelmar(ip, timeout, uuid, subtype)
    return ScriptApp("Kelmar", ip, timeout, uuid, subtype)
end
function orvexServer(ip, timeout, uuid, subtype)
    return ScriptApp("orvexServer", ip, timeout, uuid, subtype)
end
function Sorbanet(ip, timeout, uuid, subtype)
    return ScriptApp("Sorbanet", ip, timeout, uuid, subtype)
end
function Marloweave(ip, timeout, uuid, subtype)
    return ScriptApp("Marloweave", ip, timeout, uuid, subtype)
end

-- This very application, when the library runs inside a host.
function ThisApp(timeout)
    return ScriptApp(GetAppName(), "127.0.0.1", timeout, GetAppUUID())
end

function Help(topic, object)
    object = object or GetUsing()
    if type(topic) == "userdata" then
        local registration = topic:GetReg()
        if registration then
            print((object or topic):GetHelp(registration.ID))
            return
        end
    end
    if object then
        print(object:GetHelp(topic) or ("No help available on '" .. tostring(topic) .. "'"))
    else
        print("No object for help lookup")
    end
end

function trace(...)
    print(...)
    return ...
end

-- Event suites: per name a chain of handler tables. DefineEventSuite makes the tail, which holds the
-- default handlers; AddEventSuite puts a new head in front; DispatchEvent offers an event to the head,
-- and a handler passes it on with suite:Default(event).
_Events = _Events or {}

function DefineEventSuite(name)
    local suite = {}
    _Events[name] = suite
    return suite
end

function AddEventSuite(name, object)
    local head = _Events[name]
    if head == nil then
        return nil
    end
    local suite = { _Name = name, _Object = object, _Next = head, Default = _Event_Default }
    head._Prev = suite
    _Events[name] = suite
    return suite
end

function RemoveEventSuite(suite)
    if suite._Name then
        local before, after = suite._Prev, suite._Next
        if before then
            before._Next = after
        elseif _Events[suite._Name] == suite then
            _Events[suite._Name] = after
        end
        if after then
            after._Prev = before
        end
        suite._Prev, suite._Next, suite._Name, suite._Object, suite.Default = nil, nil, nil, nil, nil
    end
    return false
end

function _Event_Default(suite, event)
    local next = suite._Next
    while next do
        local handler = next[event._Name]
        if handler then
            return handler(next, event)
        end
        next = next._Next
    end
    return nil
end

function DispatchEvent(suiteName, name, event)
    event._Name = name
    suite = _Events[suiteName]
    if suite == nil then
        return nil
    end
    local handler = suite[name]
    if handler then
        return handler(suite, event)
    end
    return _Event_Default(suite, event)
end
