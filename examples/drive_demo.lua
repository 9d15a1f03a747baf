-- drive_demo.lua: drives the demo host from another process. Start the host, then run
--   orvexDemoHost &
--   orvexScript examples/drive_demo.lua
-- It finds "orvexDemo" through the machine's script server, reads and calls members of its root, makes
-- documents and layers and reads them back, changes a layer, saves a description of the documents with
-- orvex.writefile and reads it back with orvex.readfile, and lets its objects go, after which the host
-- holds none of them. Arguments: name=APP (another application name), timeout=SECONDS (default 10),
-- pause=1 (stops before the second half until a line or the end of standard input arrives).
-- Exit status: 0 when every step worked, 2 if the application can't be found, 3 if it stops answering.

local name = arg.name or "orvexDemo"
local timeout = tonumber(arg.timeout) or 10

local function step(title)
    print(("== %s"):format(title))
end

-- A nil answer means the application has gone (or stopped answering within the time-out): the run ends
-- with a message that says what was being done.
local function need(value, what)
    if value == nil then
        error({ what = what }, 0)
    end
    return value
end

local function show(value)
    if type(value) ~= "table" then
        return type(value) == "string" and ("%q"):format(value) or tostring(value)
    end
    local parts = {}
    for i, item in ipairs(value) do
        parts[#parts + 1] = show(item)
    end
    local keys = {}
    for key in pairs(value) do
        if type(key) ~= "number" then
            keys[#keys + 1] = key
        end
    end
    table.sort(keys)
    for _, key in ipairs(keys) do
        parts[#parts + 1] = ("%s = %s"):format(key, show(value[key]))
    end
    return "{ " .. table.concat(parts, ", ") .. " }"
end

-- The documents as plain data: names, and each layer's name and opacity.
local function describe(app)
    local description = {}
    for _, document in ipairs(need(app:Documents(), "listing the documents")) do
        local entry = { Name = need(document.Name, "reading a document's name"), Layers = {} }
        for _, layer in ipairs(need(document:Layers(), "listing the layers")) do
            entry.Layers[#entry.Layers + 1] = {
                Name = need(layer.Name, "reading a layer's name"),
                Opacity = need(layer.Opacity, "reading a layer's opacity"),
            }
        end
        description[#description + 1] = entry
    end
    return description
end

local function printDescription(description)
    for _, document in ipairs(description) do
        print(("  document %q"):format(document.Name))
        for _, layer in ipairs(document.Layers) do
            print(("    layer %-14s opacity %.2f"):format(("%q"):format(layer.Name), layer.Opacity))
        end
    end
end

local function sameDescription(a, b)
    if #a ~= #b then
        return false
    end
    for i = 1, #a do
        if a[i].Name ~= b[i].Name or #a[i].Layers ~= #b[i].Layers then
            return false
        end
        for j = 1, #a[i].Layers do
            local x, y = a[i].Layers[j], b[i].Layers[j]
            if x.Name ~= y.Name or math.abs(x.Opacity - y.Opacity) > 1e-9 then
                return false
            end
        end
    end
    return true
end

local function drive(app)
    step("connected")
    local data = app:GetAppData()
    print(("  application %q at %s"):format(data.Name, data.Address))

    step("root members")
    print("  Version       = " .. show(need(app.Version, "reading Version")))
    local echoed = { app:Echo("hello", 42, true, { 1, 2, colour = "teal" }) }
    need(echoed[1], "calling Echo")
    print("  Echo(...)     = " .. show(echoed))
    print("  Add(2, 3)     = " .. show(need(app:Add(2, 3), "calling Add")))
    print("  LiveObjects() = " .. show(need(app:LiveObjects(), "calling LiveObjects")))
    -- A member that fails raises a Lua error carrying the application's message.
    local failed, message = pcall(function() return app:Fail("no such layer") end)
    print("  Fail(...)     raised an error: " .. tostring(not failed) .. ", " .. show(message))

    step("the application as the active object")
    -- With Using, names that aren't globals are looked up in the application: Add(20, 22) is app:Add(20, 22).
    Using(app)
    print("  Version = " .. show(Version) .. ", Add(20, 22) = " .. show(Add(20, 22)) .. ", NoSuchMember = "
        .. show(NoSuchMember))
    Using(nil)

    step("documents and layers")
    local poster = need(app:NewDocument("Poster"), "making a document")
    local background = need(poster:AddLayer("Background"), "adding a layer")
    need(poster:AddLayer("Title"), "adding a layer")
    local letter = need(app:NewDocument("Letter"), "making a document")
    need(letter:AddLayer("Body"), "adding a layer")
    printDescription(describe(app))
    print("  LiveObjects() = " .. show(need(app:LiveObjects(), "calling LiveObjects")))

    if arg.pause then
        print("paused")
        io.stdout:flush()
        io.read("*l")
    end

    step("changing a layer")
    print(("  Background opacity %.2f"):format(need(background.Opacity, "reading Opacity")))
    background.Opacity = 0.25
    print(("  Background opacity %.2f after setting 0.25"):format(need(background.Opacity, "reading Opacity")))

    step("saving the description")
    local description = describe(app)
    if orvex.writefile and orvex.readfile then
        local path = os.tmpname()
        local written = orvex.writefile(path, description)
        local file = io.open(path)
        local text = file and file:read("*a") or ""
        if file then
            file:close()
        end
        print(("  orvex.writefile gave %s, %d bytes:"):format(tostring(written), #text))
        for line in text:gmatch("[^\n]+") do
            print("    " .. line:gsub("\t", "  "))
        end
        local back = orvex.readfile(path)
        os.remove(path)
        print("  read back with orvex.readfile:")
        printDescription(back or {})
        print("  the same as saved: " .. tostring(back ~= nil and sameDescription(description, back)))
    else
        print("  (this build has no orvex.writefile: the description stays in memory)")
        printDescription(description)
    end

    step("letting go")
    need(poster:Close(), "closing a document")
    need(letter:Close(), "closing a document")
    print("  open documents after Close: " .. #need(app:Documents(), "listing the documents"))
    poster, letter, background, description = nil, nil, nil, nil
    collectgarbage()
    collectgarbage()
    -- The releases travel ahead of this call on the same connection.
    print("  LiveObjects() = " .. show(need(app:LiveObjects(), "calling LiveObjects")))
end

local app = ScriptApp(name, "127.0.0.1", timeout)
if app == nil then
    io.stderr:write(("drive_demo: no application %q answers (is orvexDemoHost running?)\n"):format(name))
    return 2
end
local ok, failure = pcall(drive, app)
if ok then
    print("done")
    return 0
end
if type(failure) == "table" and failure.what then
    io.stderr:write(("drive_demo: no answer from %q while %s: the application has gone or stopped answering\n")
        :format(name, failure.what))
    return 3
end
error(failure, 0)
