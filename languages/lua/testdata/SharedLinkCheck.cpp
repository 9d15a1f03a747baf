// A host's view of the library: a program linked against the shared library alone, naming the root
// Lua descriptor that every object's class declares. It links only if the library exports it.
#include <cstdio>
#include <cstring>

#include "languages/lua/LuaType.h"

int main()
{
    const orvexScript::LuaType *root = &orvexScript::LuaClass::s_LuaType;
    if (!root->m_Name || std::strcmp(root->m_Name, "LuaClass") != 0 || root->m_Parent)
    {
        std::fprintf(stderr, "LuaClass::s_LuaType is not the root descriptor \"LuaClass\"\n");
        return 1;
    }
    return 0;
}
