// Start-up of scripting inside a host and its reverse: the host's entry for the script server, the
// script window, registering with the machine's server (starting one if none answers) and taking the
// registration back. The registration lives as long as the proxy of the server's root is held here:
// the server forgets a host whose connection ends.
#include "remote/Scripting.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "remote/ProcessStart.h"
#include "remote/RemoteApp.h"
#include "remote/RemoteObject.h"
#include "remote/ScriptApp.h"
#include "remote/ScriptWindow.h"
#include "values/base/Platform.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptVal.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{

// The table this host gives the server's AddHost: the host's own keys and Name, ProcessID, UUID and
// SupportsNewConnect. Main thread only.
ScriptVal g_HostInfo;

namespace
{
constexpr unsigned short kDefaultServerPort = 10251;
constexpr const char *kServerProgramName = "orvexScript";
constexpr const char *kServerProgramVariable = "ORVEXSCRIPT_SERVER_PROGRAM";
// Rounds of starting a server, and connects after each start, before a host gives up registering.
constexpr int kServerStarts = 10;
constexpr int kConnectsPerStart = 10;
constexpr uint32_t kRetryPauseMs = 100;

void *s_Instance = nullptr;
bool s_DeferredStart = false; // a deferred start waits for the pump; StopScripting cancels it
ScriptVal s_ServerObject; // the proxy of the server's root; holding it keeps the registration
ScriptVal s_Registration; // what AddHost answered; nil: not registered

std::mutex s_ProgramLock;
std::string s_ServerProgram; // set by SetServerProgram; empty: the environment, then the default

// g_ScriptingActive is a plain exported bool that connecting threads poll: read and write it whole.
bool IsActive()
{
    return std::atomic_ref<bool>(g_ScriptingActive).load();
}

void SetActive(bool active)
{
    std::atomic_ref<bool>(g_ScriptingActive).store(active);
}

uint32_t ConfigFlags()
{
    return g_ScriptConfig ? g_ScriptConfig->flags : 0;
}

const char *ConfigName()
{
    return g_ScriptConfig ? g_ScriptConfig->name : nullptr;
}

bool HasName()
{
    const char *name = ConfigName();
    return name && *name;
}

// Steps 1 to 3 of both starts: the host's entry. False if scripting is already active.
bool PrepareHostInfo(void *instance, const ScriptVal &info)
{
    if (IsActive()) return false;
    s_Instance = instance;
    if (info.IsTable())
        g_HostInfo = info;
    else
        g_HostInfo = SV_Table;
    if (const char *name = ConfigName()) g_HostInfo["Name"] = ScriptVal(name);
    g_HostInfo["ProcessID"] = static_cast<double>(ProcessStart::CurrentProcessId());
    g_HostInfo["UUID"] = GetAppUUID();
    g_HostInfo["SupportsNewConnect"] = ScriptVal(true);
    return true;
}

// One attempt: a bare connection to the server on this machine within `timeout` seconds, and AddHost
// on its root. The proxy is kept whenever the connect worked; the answer says whether it registered.
bool ConnectAndRegister(double timeout)
{
    ScriptVal server = ScriptApp(nullptr, nullptr, nil, "127.0.0.1", timeout);
    if (server.IsNil()) return false;
    if (RemoteObject *record = server.ToRemoteObject())
        if (record->m_App) record->m_App->SetTimeOut(1.0);
    s_ServerObject = server;
    s_Registration = server.CallMember("AddHost", g_HostInfo);
    return true;
}

void RegisterWithServer()
{
    if (ConnectAndRegister(0.01) && !s_Registration.IsNil()) return;
    for (int round = 0; round < kServerStarts && s_Registration.IsNil(); ++round)
    {
        if (!HasName()) return; // an unnamed host is never looked for: no server is started for it
        (void)StartServer();
        for (int attempt = 0; attempt < kConnectsPerStart && s_Registration.IsNil(); ++attempt)
        {
            if (!ConnectAndRegister(1.0))
                GetServerLog().PrintF("Failed to connect to script server: Err %d, retrying %d\n", errno,
                                      round * kConnectsPerStart + attempt + 1);
            if (s_Registration.IsNil()) Platform::SleepMs(kRetryPauseMs);
        }
    }
}

void RunDeferredStart(void *)
{
    if (!s_DeferredStart) return;
    s_DeferredStart = false;
    (void)DoStartScripting();
}

std::string DefaultServerProgram()
{
    std::vector<std::string> candidates;
    const std::string exeFolder = ProcessStart::ExecutableFolder();
    const std::string libFolder = ProcessStart::LibraryFolder();
    if (!exeFolder.empty()) candidates.push_back(exeFolder + "/" + kServerProgramName);
    if (!libFolder.empty())
    {
        candidates.push_back(libFolder + "/" + kServerProgramName);
        candidates.push_back(libFolder + "/../bin/" + kServerProgramName); // an installed tree
    }
    for (const std::string &path : candidates)
        if (ProcessStart::IsExecutable(path)) return path;
    return candidates.empty() ? std::string(kServerProgramName) : candidates.front();
}

std::string ServerProgram()
{
    {
        std::lock_guard<std::mutex> hold(s_ProgramLock);
        if (!s_ServerProgram.empty()) return s_ServerProgram;
    }
    const char *fromEnvironment = std::getenv(kServerProgramVariable);
    if (fromEnvironment && *fromEnvironment) return fromEnvironment;
    return DefaultServerProgram();
}

std::string FolderOf(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return std::string();
    return path.substr(0, slash ? slash : 1);
}
} // namespace

bool StartScripting(void *instance, const ScriptVal &info, TagList * /*tags*/)
{
    if (!PrepareHostInfo(instance, info)) return true;
    return DoStartScripting();
}

bool DeferStartScripting(void *instance, const ScriptVal &info, TagList * /*tags*/)
{
    if (!PrepareHostInfo(instance, info)) return true;
    // A process that is no host has nothing to wait for; and without a window nothing would ever run
    // the deferred start, so it runs now.
    if (!(ConfigFlags() & SCF_Host) || !CreateScriptWindow(s_Instance)) return DoStartScripting();
    if (s_DeferredStart) return true; // one is on its way already
    s_DeferredStart = true;
    if (!GetScriptWnd()->Post(SWM_Call, reinterpret_cast<uintptr_t>(&RunDeferredStart), 0))
    {
        s_DeferredStart = false;
        return DoStartScripting();
    }
    return true;
}

bool DoStartScripting()
{
    if (IsActive()) return true;
    if (ConfigFlags() & SCF_Host)
    {
        g_AppLock.ObtainLock(); // other connects of this process wait until the host is registered
        (void)CreateScriptWindow(s_Instance);
        if (ScriptObject *root = GetRootObject())
            if (ScriptInfo *info = root->GetScriptInfo()) AddConnectMembers(info);
        RegisterWithServer();
        g_AppLock.ReleaseLock();
    }
    SetActive(true);
    return true;
}

void StopScripting(TagList * /*tags*/)
{
    s_DeferredStart = false;
    if (!IsActive()) return;
    SetActive(false);
    if ((ConfigFlags() & SCF_Host) && HasName() && !s_ServerObject.IsNil())
        (void)s_ServerObject.CallMember("RemoveHost", static_cast<double>(ProcessStart::CurrentProcessId()));
    // Letting go of the proxy ends the connection to the server.
    s_Registration = nil;
    s_ServerObject = nil;
    DestroyScriptWindow();
}

void CleanupScripting(TagList *tags)
{
    StopScripting(tags);
}

bool StartServer(TagList * /*tags*/)
{
    const std::string program = ServerProgram();
    const std::string folder = FolderOf(program);
    std::vector<std::string> argv{program, "-s"};
    if (g_ScriptServerPort != kDefaultServerPort)
    {
        argv.push_back("-p");
        argv.push_back(std::to_string(g_ScriptServerPort));
    }
    GetServerLog().PrintF("StartServer %s -s in %s\n", kServerProgramName, folder.c_str());
    int pid = -1, error = 0;
    if (ProcessStart::StartDetached(argv, folder, pid, error))
        GetServerLog().PrintF("started server [%d]\n", pid);
    else
        GetServerLog().PrintF("Failed to StartServer: Err %d\n", error);
    return true;
}

void SetServerProgram(const char *path)
{
    std::lock_guard<std::mutex> hold(s_ProgramLock);
    s_ServerProgram = path ? path : "";
}

} // namespace orvexScript
