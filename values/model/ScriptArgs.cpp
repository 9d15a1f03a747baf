// Argument records that answer a peer, and member calls on object values. The sending and the calling
// are the remote layer's, reached through its hooks; without them nothing is sent and calls give nil.
#include "values/model/ScriptArgs.h"

#include <new>

#include "values/model/RemoteHooks.h"

namespace orvexScript
{

ScriptArgs::ScriptArgs(RemoteApp *app, unsigned long context) : ScriptVal(SV_Args, nullptr)
{
    SetApp(app);
    GetValue().m_Args.m_Context = static_cast<uint32_t>(context);
}

ScriptArgs *ScriptArgs::DeferReply()
{
    if (!IsArgs() || !GetValue().m_Args.m_App || GetValue().m_Args.m_Context == 0) return nullptr;
    RemoteApp *app = GetValue().m_Args.m_App;
    const uint32_t context = GetValue().m_Args.m_Context;
    const uint8_t returns = GetValue().m_Args.m_NumReturns;
    auto *later = new (std::nothrow) ScriptArgs(app, context);
    if (!later) return nullptr;
    // Assigning a record copies its entries only: the connection, context and count are set again.
    static_cast<ScriptVal &>(*later) = *this;
    later->SetApp(app);
    later->GetValue().m_Args.m_Context = context;
    later->GetValue().m_Args.m_NumReturns = returns;
    static_cast<ScriptVal &>(*this) = ScriptVal(SV_Args, nullptr);
    SetFlags(kDeferred);
    return later;
}

bool ScriptArgs::SendReply()
{
    auto sendReply = GetRemoteHooks().sendReply;
    return IsArgs() && sendReply && sendReply(*this);
}

ScriptVal ScriptVal::CallMemberA(const char *name, ScriptArgs &args) const
{
    auto callMember = GetRemoteHooks().callMember;
    if (!callMember || !name || (Type() != SV_RemoteObject && Type() != SV_LocalObject)) return ScriptVal();
    return callMember(*this, name, args);
}

} // namespace orvexScript
