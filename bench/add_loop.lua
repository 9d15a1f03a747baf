-- The Lua side of ScriptLoopBench: app:Add(i, 1) for i = 1 .. calls on the demo host, timed on the
-- monotonic clock around the loop alone. Each app:Add reads the member (one round trip) and calls it
-- (another); with held=1 the loop reads it once before and makes only the calls. Prints
-- "calls N seconds S"; status 2 without the host.
local ffi = require("ffi")
ffi.cdef([[
typedef struct { long tv_sec; long tv_nsec; } addloop_timespec;
int clock_gettime(int clock, addloop_timespec *time);
]])
local time = ffi.new("addloop_timespec")
local function now()
    ffi.C.clock_gettime(1, time) -- CLOCK_MONOTONIC
    return tonumber(time.tv_sec) + tonumber(time.tv_nsec) * 1e-9
end

local app = ScriptApp(arg.name or "orvexDemo", "127.0.0.1", 10)
if app == nil then
    io.stderr:write("add_loop: no application answers\n")
    return 2
end
local calls = tonumber(arg.calls) or 10000
assert(app:Add(0, 1) == 1)
local sum = 0
local start = now()
if arg.held then
    local add = app.Add
    for i = 1, calls do
        sum = sum + add(app, i, 1)
    end
else
    for i = 1, calls do
        sum = sum + app:Add(i, 1)
    end
end
local seconds = now() - start
assert(sum == calls * (calls + 1) / 2 + calls, "every call answered")
print(("calls %d seconds %.6f"):format(calls, seconds))
return 0
