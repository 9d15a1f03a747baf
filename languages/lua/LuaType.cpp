// The descriptor record and list, the forwarding bodies of the operations, the root descriptor
// LuaClass::s_LuaType, and the generic metamethods that every typed userdata's metatable holds.
// The remote object descriptor is in LuaRemoteType.cpp.

#include "languages/lua/LuaType.h"

#include <lua.hpp>

#include <cstring>

#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaTypeInternal.h"
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

// ---- forwarding: an operation a descriptor leaves alone is its parent's --------------------------

int LuaType::lw_create(lua_State *)
{
    return 0;
}

#define ORVEX_FORWARD(op)                                                                                    \
    int LuaType::op(LuaType *, lua_State *state, void *object, LuaType *recordType)                         \
    {                                                                                                        \
        if (!m_Parent) return 0;                                                                             \
        return m_Parent->op(m_Parent, state, ToParent(object), recordType);                                  \
    }
ORVEX_FORWARD(lw_typename)
ORVEX_FORWARD(lw_istypeof)
ORVEX_FORWARD(lw_tostring)
ORVEX_FORWARD(lw_call)
ORVEX_FORWARD(lw_newindex)
ORVEX_FORWARD(lw_index)
ORVEX_FORWARD(lw_add)
ORVEX_FORWARD(lw_sub)
ORVEX_FORWARD(lw_mul)
ORVEX_FORWARD(lw_div)
ORVEX_FORWARD(lw_pow)
ORVEX_FORWARD(lw_unm)
ORVEX_FORWARD(lw_eq)
ORVEX_FORWARD(lw_lt)
ORVEX_FORWARD(lw_le)
ORVEX_FORWARD(lw_concat)
ORVEX_FORWARD(lw_use)
ORVEX_FORWARD(lw_recycle)
#undef ORVEX_FORWARD

int LuaType::lw_reserved1(LuaType *, lua_State *state, void *object, LuaType *recordType, void *a, void *b,
                          void *c)
{
    if (!m_Parent) return 0;
    return m_Parent->lw_reserved1(m_Parent, state, ToParent(object), recordType, a, b, c);
}

int LuaType::lw_reserved2(LuaType *, lua_State *state, void *object, LuaType *recordType, void *a, void *b,
                          void *c)
{
    if (!m_Parent) return 0;
    return m_Parent->lw_reserved2(m_Parent, state, ToParent(object), recordType, a, b, c);
}

void *LuaType::lw_frombase(void *object)
{
    return object;
}

void *LuaType::lw_tobase(void *object)
{
    return object;
}

bool LuaType::IsA(const LuaType *other) const
{
    for (const LuaType *type = this; type; type = type->m_Parent)
        if (type == other) return true;
    return false;
}

// ---- registration ---------------------------------------------------------------------------------

bool LuaType::lw_register(lua_State *state)
{
    lua_getglobal(state, "class");
    if (!lua_istable(state, -1))
    {
        lua_pop(state, 1);
        lua_newtable(state);
        lua_pushvalue(state, -1);
        lua_setglobal(state, "class");
    }
    lw_register(state, -1);
    lua_pop(state, 1);
    return true;
}

bool LuaType::lw_register(lua_State *state, int index)
{
    index = lua_absindex(state, index);
    PushDescriptorHolder(state, this);
    lua_pushcclosure(state, luatype_call_create, 1);
    lua_setfield(state, index, m_Name);
    LuaTypeMetatable(state, this);
    return true;
}

int LuaType::lw_push(lua_State *state, void *object, unsigned long flags)
{
    lua_pushLuaObject(state, object, this, flags);
    return 1;
}

bool LuaType::lw_flaunttable(lua_State *state, const char *table, const char *key)
{
    lua_getglobal(state, table);
    if (lua_istable(state, -1))
    {
        if (key)
        {
            lua_getfield(state, -1, key);
            lua_setglobal(state, key);
        }
        else
        {
            lua_pushnil(state);
            while (lua_next(state, -2))
            {
                // Only names can be globals of that name.
                if (lua_type(state, -2) == LUA_TSTRING)
                {
                    lua_pushvalue(state, -2);
                    lua_insert(state, -2);
                    lua_settable(state, LUA_GLOBALSINDEX);
                }
                else
                {
                    lua_pop(state, 1);
                }
            }
        }
    }
    lua_pop(state, 1);
    return true;
}

void PushDescriptorHolder(lua_State *state, LuaType *type)
{
    *static_cast<LuaType **>(lua_newuserdata(state, sizeof(LuaType *))) = type;
}

// The private key whose presence in a metatable marks it as a typed object metatable of this library.
static const char s_TypedMetatableKey = 0;

void LuaTypeMetatable(lua_State *state, LuaType *type)
{
    static const luaL_Reg kFields[] = {
        {"_typename", luatype_call_typename}, {"_istypeof", luatype_call_istypeof},
        {"__tostring", luatype_call_tostring}, {"__call", luatype_call_call},
        {"__gc", luatype_call_gc},             {"__index", luatype_call_index},
        {"__newindex", luatype_call_newindex}, {"__add", luatype_call_add},
        {"__sub", luatype_call_sub},           {"__mul", luatype_call_mul},
        {"__div", luatype_call_div},           {"__pow", luatype_call_pow},
        {"__unm", luatype_call_unm},           {"__eq", luatype_call_eq},
        {"__lt", luatype_call_lt},             {"__le", luatype_call_le},
        {"__concat", luatype_call_concat},
    };
    lua_createtable(state, 0, static_cast<int>(std::size(kFields)) + 1);
    for (const luaL_Reg &field : kFields)
    {
        // Each metamethod holds the metatable as its upvalue, which spares it the look-up of the
        // private key for the userdata it is called for (RecordOfSelf).
        lua_pushvalue(state, -1);
        lua_pushcclosure(state, field.func, 1);
        lua_setfield(state, -2, field.name);
    }
    lua_pushlightuserdata(state, const_cast<char *>(&s_TypedMetatableKey));
    lua_pushlightuserdata(state, type);
    lua_rawset(state, -3);
    lua_setfield(state, LUA_REGISTRYINDEX, type->m_Name);
}

LuaObject *lua_toLuaObject(lua_State *state, int index)
{
    if (lua_type(state, index) != LUA_TUSERDATA || lua_objlen(state, index) != sizeof(LuaObject *)) return nullptr;
    if (!lua_getmetatable(state, index)) return nullptr;
    lua_pushlightuserdata(state, const_cast<char *>(&s_TypedMetatableKey));
    lua_rawget(state, -2);
    const bool typed = lua_touserdata(state, -1) != nullptr;
    lua_pop(state, 2);
    if (!typed) return nullptr;
    return *static_cast<LuaObject **>(lua_touserdata(state, index));
}

// The record of the userdata at index 1 of a generic metamethod. A userdata of the record's size whose
// metatable is the one the metamethod was made for (its upvalue) is typed, since LuaTypeMetatable made
// that metatable; anything else, a metamethod called by hand included, takes the full test.
static LuaObject *RecordOfSelf(lua_State *state)
{
    void *block = lua_touserdata(state, 1);
    if (block && lua_objlen(state, 1) == sizeof(LuaObject *) && lua_getmetatable(state, 1))
    {
        const bool own = lua_rawequal(state, -1, lua_upvalueindex(1));
        lua_pop(state, 1);
        if (own) return *static_cast<LuaObject **>(block);
    }
    return lua_toLuaObject(state, 1);
}

// ---- the root descriptor ----------------------------------------------------------------------------

LuaType_LuaClass LuaClass::s_LuaType("LuaClass", nullptr, nullptr, nullptr, 0, 0);

int LuaType_LuaClass::lw_typename(LuaType *, lua_State *state, void *, LuaType *recordType)
{
    lua_pushstring(state, recordType->m_Name);
    return 1;
}

int LuaType_LuaClass::lw_istypeof(LuaType *, lua_State *state, void *, LuaType *recordType)
{
    const char *name = lua_tostring(state, 1);
    bool found = false;
    for (LuaType *type = recordType; name && type && !found; type = type->m_Parent)
        found = type->m_Name && std::strcmp(type->m_Name, name) == 0;
    lua_pushboolean(state, found);
    return 1;
}

int LuaType_LuaClass::lw_tostring(LuaType *, lua_State *state, void *object, LuaType *recordType)
{
    lua_pushfstring(state, "%s <%p>", recordType->m_Name ? recordType->m_Name : "?", object);
    return 1;
}

int LuaType_LuaClass::lw_call(LuaType *, lua_State *, void *, LuaType *)
{
    return 0;
}

int LuaType_LuaClass::lw_newindex(LuaType *, lua_State *, void *, LuaType *)
{
    return 0;
}

int LuaType_LuaClass::lw_index(LuaType *, lua_State *state, void *, LuaType *)
{
    lua_pushnil(state);
    return 1;
}

#define ORVEX_ILLEGAL(op)                                                                                    \
    int LuaType_LuaClass::op(LuaType *, lua_State *state, void *, LuaType *)                                \
    {                                                                                                        \
        return luaL_error(state, "Illegal operator");                                                       \
    }
ORVEX_ILLEGAL(lw_add)
ORVEX_ILLEGAL(lw_sub)
ORVEX_ILLEGAL(lw_mul)
ORVEX_ILLEGAL(lw_div)
ORVEX_ILLEGAL(lw_pow)
ORVEX_ILLEGAL(lw_unm)
ORVEX_ILLEGAL(lw_lt)
ORVEX_ILLEGAL(lw_le)
ORVEX_ILLEGAL(lw_concat)
#undef ORVEX_ILLEGAL

int LuaType_LuaClass::lw_eq(LuaType *, lua_State *state, void *object, LuaType *)
{
    const LuaObject *other = lua_toLuaObject(state, 1);
    lua_pushboolean(state, other && other->type->IsA(&LuaClass::s_LuaType) &&
                               other->type->lw_frombase(other->object) == object);
    return 1;
}

int LuaType_LuaClass::lw_use(LuaType *, lua_State *, void *, LuaType *)
{
    return 0;
}

int LuaType_LuaClass::lw_recycle(LuaType *, lua_State *, void *, LuaType *)
{
    return 0;
}

// ---- the generic metamethods ------------------------------------------------------------------------

namespace
{

using Operation = int (LuaType::*)(LuaType *, lua_State *, void *, LuaType *);

// The common body: the record of index 1 (none: no results), index 1 removed, the operation called.
template <Operation op> int CallOperation(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        LuaObject *record = RecordOfSelf(L);
        if (!record) return 0;
        lua_remove(L, 1);
        LuaType *type = record->type;
        return (type->*op)(type, L, type->lw_frombase(record->object), type);
    });
}

// Finds `key` (hash `hash`) in a descriptor's table of rows.
template <typename Row> Row *FindRow(Row *rows, uint32_t hash, const char *key)
{
    for (Row *row = rows; row && row->name; ++row)
        if (row->hash == hash && std::strcmp(row->name, key) == 0) return row;
    return nullptr;
}

} // namespace

int luatype_call_typename(lua_State *state)
{
    return CallOperation<&LuaType::lw_typename>(state);
}
int luatype_call_istypeof(lua_State *state)
{
    return CallOperation<&LuaType::lw_istypeof>(state);
}
int luatype_call_tostring(lua_State *state)
{
    return CallOperation<&LuaType::lw_tostring>(state);
}
int luatype_call_add(lua_State *state)
{
    return CallOperation<&LuaType::lw_add>(state);
}
int luatype_call_sub(lua_State *state)
{
    return CallOperation<&LuaType::lw_sub>(state);
}
int luatype_call_mul(lua_State *state)
{
    return CallOperation<&LuaType::lw_mul>(state);
}
int luatype_call_div(lua_State *state)
{
    return CallOperation<&LuaType::lw_div>(state);
}
int luatype_call_pow(lua_State *state)
{
    return CallOperation<&LuaType::lw_pow>(state);
}
int luatype_call_unm(lua_State *state)
{
    return CallOperation<&LuaType::lw_unm>(state);
}
int luatype_call_eq(lua_State *state)
{
    return CallOperation<&LuaType::lw_eq>(state);
}
int luatype_call_lt(lua_State *state)
{
    return CallOperation<&LuaType::lw_lt>(state);
}
int luatype_call_le(lua_State *state)
{
    return CallOperation<&LuaType::lw_le>(state);
}
int luatype_call_concat(lua_State *state)
{
    return CallOperation<&LuaType::lw_concat>(state);
}

int luatype_call_call(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        LuaObject *record = RecordOfSelf(L);
        if (!record) return 0;
        LuaType *type = record->type;
        return type->lw_call(type, L, type->lw_frombase(record->object), type);
    });
}

int luatype_call_gc(lua_State *state)
{
    // Runs inside the collector: nothing may escape, and the record is freed whatever happens.
    LuaObject *record = lua_toLuaObject(state, 1);
    if (!record) return 0;
    *static_cast<LuaObject **>(lua_touserdata(state, 1)) = nullptr;
    try
    {
        LuaType *type = record->type;
        if (!(record->flags & LOF_NotCounted)) type->lw_recycle(type, state, type->lw_frombase(record->object), type);
    }
    catch (...)
    {
    }
    delete record;
    return 0;
}

int luatype_call_index(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        LuaObject *record = RecordOfSelf(L);
        if (!record) return 0;
        if (lua_type(L, 2) == LUA_TSTRING)
        {
            const char *key = lua_tostring(L, 2);
            const uint32_t hash = gethash(key);
            for (LuaType *type = record->type; type; type = type->m_Parent)
            {
                if (LuaMemberTable *member = FindRow(type->m_Members, hash, key))
                {
                    lua_remove(L, 1);
                    return member->function(type, L, type->lw_frombase(record->object), record, false);
                }
                if (LuaFuncTable *function = FindRow(type->m_Functions, hash, key))
                {
                    lua_pushlightuserdata(L, function);
                    lua_pushlightuserdata(L, type);
                    lua_pushvalue(L, 1);
                    lua_pushcclosure(L, luatype_call_member, 3);
                    return 1;
                }
            }
        }
        lua_remove(L, 1);
        LuaType *type = record->type;
        return type->lw_index(type, L, type->lw_frombase(record->object), type);
    });
}

int luatype_call_newindex(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        LuaObject *record = RecordOfSelf(L);
        if (!record) return 0;
        if (lua_type(L, 2) == LUA_TSTRING)
        {
            const char *key = lua_tostring(L, 2);
            const uint32_t hash = gethash(key);
            for (LuaType *type = record->type; type; type = type->m_Parent)
            {
                if (LuaMemberTable *member = FindRow(type->m_Members, hash, key))
                {
                    lua_remove(L, 1);
                    return member->function(type, L, type->lw_frombase(record->object), record, true);
                }
            }
        }
        lua_remove(L, 1);
        LuaType *type = record->type;
        return type->lw_newindex(type, L, type->lw_frombase(record->object), type);
    });
}

int luatype_call_member(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        auto *row = static_cast<LuaFuncTable *>(lua_touserdata(L, lua_upvalueindex(1)));
        auto *type = static_cast<LuaType *>(lua_touserdata(L, lua_upvalueindex(2)));
        if (!lua_rawequal(L, 1, lua_upvalueindex(3)))
            return luaL_error(L, "Member functions must be called with a ':', not a '.'");
        LuaObject *record = lua_toLuaObject(L, 1);
        if (!record || !row || !type) return 0;
        lua_remove(L, 1);
        return row->function(type, L, type->lw_frombase(record->object), record);
    });
}

int luatype_call_create(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        auto *holder = static_cast<LuaType **>(lua_touserdata(L, lua_upvalueindex(1)));
        if (!holder || !*holder) return 0;
        return (*holder)->lw_create(L);
    });
}

} // namespace orvexScript
