// The names of the special symbols, which are also the command numbers of call packets.

#include "values/model/SymbolNumbers.h"

#include <cstring>

namespace orvexScript
{

namespace
{
const char *const kSpecialNames[] = {
    "SST_Create",
    "SST_Call",
    "SST_GetTable",
    "SST_SetTable",
    "SST_Add",
    "SST_Sub",
    "SST_Mul",
    "SST_Div",
    "SST_Pow",
    "SST_Unm",
    "SST_EQ",
    "SST_LE",
    "SST_LT",
    "SST_Concat",
    "SST_ToString",
    "SST_CallFunction",
    "SST_CallMemberFunction",
    "SST_GetSetAttrs",
    "SST_GetCustomData",
    "SST_SetCustomData",
    "SST_ObjectFromAddress",
    "SST_OnConnect",
    "SST_OnConnectFailed",
    "SST_OnDisconnect",
    "SST_IsDebug",
};
static_assert(sizeof(kSpecialNames) / sizeof(kSpecialNames[0]) == SST_LastSpecial - SST_FirstSpecial + 1);
} // namespace

const char *SpecialSymbolName(unsigned long number)
{
    if (number < SST_FirstSpecial || number > SST_LastSpecial) return nullptr;
    return kSpecialNames[number - SST_FirstSpecial];
}

uint32_t SpecialSymbolNumber(const char *name)
{
    if (!name) return 0;
    for (uint32_t number = SST_FirstSpecial; number <= SST_LastSpecial; ++number)
        if (std::strcmp(kSpecialNames[number - SST_FirstSpecial], name) == 0) return number;
    return 0;
}

} // namespace orvexScript
