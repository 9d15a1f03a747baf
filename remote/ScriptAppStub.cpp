// Stand-ins for the connection functions that the script server's side provides, so that start-up
// builds and runs before that code is here: a bare connection to host:g_ScriptServerPort, no
// connection members.
#include "remote/ScriptApp.h"

namespace orvexScript
{

ScriptVal ScriptApp(const char *name, const char * /*subtype*/, ScriptVal /*uuid*/, const char *host,
                    double timeout)
{
    auto *app = new RemoteApp;
    app->Use();
    app->SetName(name ? name : "");
    app->SetHost(host ? host : "127.0.0.1");
    app->SetTimeOut(timeout);
    ScriptVal root = app->FindRemoteObject(GlobalObjectTable::kRootId);
    if (!app->Connect()) root = nil;
    app->Recycle();
    return root;
}

void AddConnectMembers(ScriptInfo * /*info*/) {}

} // namespace orvexScript
