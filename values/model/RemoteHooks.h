// The few operations that values need from the remote layer (remote objects and applications).
// The remote library registers them at load; until then remote objects are inert and never occur.
#pragma once

#include "values/base/Export.h"

namespace orvexScript
{

class RemoteObject;
class RemoteApp;
class ScriptObject;
class ScriptArgs;
class ScriptVal;

struct RemoteHooks
{
    void (*incRef)(RemoteObject *object) = nullptr;
    void (*decRef)(RemoteObject *object) = nullptr;
    // Same application, same object identifier, same local pointer.
    bool (*equal)(const RemoteObject *a, const RemoteObject *b) = nullptr;
    RemoteApp *(*getApp)(const RemoteObject *object) = nullptr;
    // The local object that a remote object knows, or null.
    ScriptObject *(*localObject)(const RemoteObject *object) = nullptr;
    void (*appUse)(RemoteApp *app) = nullptr;
    void (*appRecycle)(RemoteApp *app) = nullptr;
    // Sends a command (SST_GetTable, SST_SetTable, ...) and waits for the reply in `args`.
    bool (*doCommand)(RemoteObject *object, unsigned long cmd, ScriptArgs &args) = nullptr;
    // The member call of ScriptVal::CallMemberA on an object value: the first result.
    ScriptVal (*callMember)(const ScriptVal &receiver, const char *name, ScriptArgs &args) = nullptr;
    // Sends the reply of an argument record; false if none could be sent.
    bool (*sendReply)(ScriptArgs &args) = nullptr;
};

void SetRemoteHooks(const RemoteHooks &hooks);
const RemoteHooks &GetRemoteHooks();

} // namespace orvexScript
