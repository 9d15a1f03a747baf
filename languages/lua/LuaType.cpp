// The descriptor record and list, and the root descriptor LuaClass::s_LuaType ("LuaClass", no
// parent, no functions, no properties).

#include "languages/lua/LuaType.h"

#include "values/base/Hash.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

// Zero before any constructor runs, so descriptors of every source file can push themselves on it.
constinit _LuaType *g_LuaTypeList = nullptr;

_LuaType::_LuaType(const char *name, LuaType *parent, LuaFuncTable *functions, LuaMemberTable *members,
                   unsigned long flags1, unsigned long flags2)
    : m_Next(g_LuaTypeList), m_Parent(parent), m_Name(name), m_Flags2(static_cast<uint32_t>(flags2)),
      m_Flags1(static_cast<uint32_t>(flags1)), m_Functions(functions), m_Members(members),
      m_Table(new ScriptVal(SV_Table, nullptr))
{
    g_LuaTypeList = this;
    for (LuaFuncTable *row = functions; row && row->name; ++row)
        row->hash = gethash(row->name);
    for (LuaMemberTable *row = members; row && row->name; ++row)
        row->hash = gethash(row->name);
}

_LuaType::~_LuaType()
{
    for (_LuaType **link = &g_LuaTypeList; *link; link = &(*link)->m_Next)
    {
        if (*link == this)
        {
            *link = m_Next;
            break;
        }
    }
    delete m_Table;
}

LuaType LuaClass::s_LuaType("LuaClass", nullptr, nullptr, nullptr, 0, 0);

} // namespace orvexScript
