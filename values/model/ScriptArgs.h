// ScriptArgs: a ScriptVal whose kind is always SV_Args. Arguments at keys 1..n, the member name or
// function at key 0, results at -1, -2, ... The transport and the replies live in the remote layer.
#pragma once

#include "values/model/ScriptVal.h"

namespace orvexScript
{

class ORVEX_API ScriptArgs : public ScriptVal
{
public:
    ScriptArgs() : ScriptVal(SV_Args, nullptr) {}
    ScriptArgs(const ScriptArgs &other) : ScriptVal(other) {}
    ScriptArgs &operator=(const ScriptArgs &other)
    {
        ScriptVal::operator=(other);
        return *this;
    }
    // A record that answers a peer: it holds (counts) the connection and the request number to reply
    // to (0: no reply is due).
    ScriptArgs(RemoteApp *app, unsigned long context);
    ~ScriptArgs() override = default;

    // For a handler that answers after it returns: a new heap record on the same connection and
    // context takes this one's entries and return count; this one is left empty and marked deferred,
    // so the dispatcher sends nothing for it. Null without a connection or a context. The caller
    // completes the new record with SendReply and then deletes it.
    ScriptArgs *DeferReply();
    // Sends the results (keys -1 .. -n, n the return count) as the reply on the record's connection.
    // False if there is no connection or no packet could be made.
    bool SendReply();
    bool IsDeferred() const { return GetFlags(kDeferred) != 0; }

    static constexpr uint32_t kDeferred = 0x200000u;

    // The number of arguments: the live keys less the one at key 0.
    int NumArgs() const { return NumKeys() - 1; }
};

template <typename... A> ScriptVal ScriptVal::CallMember(const char *name, const A &...args) const
{
    static_assert(sizeof...(A) <= 8, "at most 8 arguments");
    ScriptArgs record;
    int key = 0;
    ((record.FindKey(++key) = ScriptVal(args)), ...);
    (void)key;
    return CallMemberA(name, record);
}

} // namespace orvexScript
