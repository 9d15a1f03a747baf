// A host of the installed library: builds a table, reads it back, and prints what it found; then
// makes a connection record, as a host that talks to other processes does.
#include <cstdio>

#include "remote/RemoteApp.h"
#include "values/model/ScriptVal.h"

int main()
{
    orvexScript::ScriptVal table(orvexScript::SV_Table, nullptr);
    table["name"] = "host";
    table["answer"] = 42;
    std::printf("%s %ld %d\n", table["name"].ToString(""), table["answer"].ToInteger(), table.NumKeys());
    auto *app = new orvexScript::RemoteApp;
    app->Use();
    const bool connected = app->Connected();
    app->Recycle();
    return connected ? 1 : 0;
}
