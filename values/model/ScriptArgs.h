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
    ~ScriptArgs() override = default;

    // The number of arguments: the live keys less the one at key 0.
    int NumArgs() const { return NumKeys() - 1; }
};

} // namespace orvexScript
