// The numbers of class members: symbol kinds (below 128), the special symbols (128 and up) that stand
// for a language's operators and are also the command numbers of call packets, the flag bits of a
// symbol, and the declaration tags of ScriptSymbolTags. Plain constants, usable by every layer.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptObject.h" // Tag

namespace orvexScript
{

// The low byte of a symbol's flags.
enum ScriptSymbolType : uint32_t
{
    SST_Function = 1, // a callable member
    SST_Variable = 2, // read with SST_GetTable, written with SST_SetTable
    SST_Constant = 3, // handed down to the root when its class is linked
    SST_HelpTopic = 4,

    SST_Create = 128, // class used as a constructor
    SST_Call = 129,   // object used as a function
    SST_GetTable = 130,
    SST_SetTable = 131,
    SST_Add = 132,
    SST_Sub = 133,
    SST_Mul = 134,
    SST_Div = 135,
    SST_Pow = 136,
    SST_Unm = 137,
    SST_EQ = 138,
    SST_LE = 139,
    SST_LT = 140,
    SST_Concat = 141,
    SST_ToString = 142,
    SST_CallFunction = 143,
    SST_CallMemberFunction = 144,
    SST_GetSetAttrs = 145,
    SST_GetCustomData = 146,
    SST_SetCustomData = 147,
    SST_ObjectFromAddress = 148,
    SST_OnConnect = 149,
    SST_OnConnectFailed = 150,
    SST_OnDisconnect = 151,
    SST_IsDebug = 152,
};

constexpr uint32_t SST_FirstSpecial = 128;
constexpr uint32_t SST_LastSpecial = SST_IsDebug;
constexpr uint32_t SST_NumSpecialSlots = 128; // slots for 128..255

// The name of a special symbol ("SST_Create" for 128), or null outside 128..152.
ORVEX_API const char *SpecialSymbolName(unsigned long number);
// The number of a special symbol's name, or 0 for an unknown name.
ORVEX_API uint32_t SpecialSymbolNumber(const char *name);

// Flag bits of ScriptSymbol::m_Flags beside the number in the low byte.
constexpr uint32_t SSF_NumberMask = 0x000000FFu;
constexpr uint32_t SSF_Read = 0x00000100u;            // a readable variable
constexpr uint32_t SSF_Write = 0x00000200u;           // a writable variable
constexpr uint32_t SSF_MainThread = 0x00100000u;      // read or call runs on the main thread
constexpr uint32_t SSF_MainThreadWrite = 0x00200000u; // write runs on the main thread
constexpr uint32_t SSF_HideHelp = 0x00400000u;        // left out of help lists unless debugging
constexpr uint32_t SSF_Tags = 0x40000000u;            // the record is a ScriptSymbolTags
constexpr uint32_t SSF_DebugOnly = 0x80000000u;       // found by no look-up unless debugging

// On a function value handed out under "<name>Table": its results come back packed in one table.
// The same bit as SVF_Single, which means nothing on a function value.
constexpr uint32_t SVF_PackResults = 0x00100000u;

// Declaration tags of ScriptSymbolTags.
constexpr Tag SYMS_ShortHelp = 0x30000000u;  // the one line behind " - " in member lists
constexpr Tag SYMS_LongHelp = 0x38000000u;   // a paragraph of the long help
constexpr Tag SYMS_LongHelp2 = 0x38000001u;  // a paragraph of the long help
constexpr Tag SYMS_Prototype = 0x38000002u;  // opens a prototype; the value is its description
constexpr Tag SYMS_ReturnType = 0x38000003u; // the prototype's return type (a variable's type)
constexpr Tag SYMS_ReturnDesc = 0x38000004u; // description of the return value; not shown
constexpr Tag SYMS_ArgType = 0x38000005u;    // the type of one argument
constexpr Tag SYMS_ArgName = 0x38000006u;    // the name of that argument
constexpr Tag SYMB_Optional = 0x18000000u;   // the arguments that follow are optional

} // namespace orvexScript
