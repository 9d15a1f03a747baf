// Descriptors of the classes that Lua sees. A native object in Lua is a userdata whose metatable holds
// the same generic metamethods (luatype_call_*) for every class; what they do is decided by the
// descriptor (LuaType) of the userdata's record, through one virtual operation per Lua operation.
// Here: the descriptor record and its tables of member functions and properties, the process-wide
// list of descriptors, the root descriptor LuaClass::s_LuaType ("LuaClass", which refuses everything)
// and the descriptor of remote objects ("_ScriptObject", which forwards every operation to the
// object's process).
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptObject.h"

struct lua_State;

namespace orvexScript
{

class ScriptVal;
class RemoteObject;
struct LuaObject;

// A member function, reached with ":". A table of them ends with a row whose name is null.
struct LuaFuncTable
{
    const char *name;
    int (*function)(LuaType *type, lua_State *state, void *object, LuaObject *record);
    uint32_t hash; // gethash of the name, filled by the descriptor
};

// A property, read and written with "."; `set` is true for a write, with the value on the stack.
struct LuaMemberTable
{
    const char *name;
    int (*function)(LuaType *type, lua_State *state, void *object, LuaObject *record, bool set);
    uint32_t hash;
};

// What a typed object userdata holds a pointer to. The record belongs to the userdata: its __gc frees
// it.
struct LuaObject
{
    LuaType *type; // the descriptor that serves the userdata
    void *object;  // the native object, in the descriptor's base form
    uint32_t flags;
};

// LuaObject::flags: no lw_use was made at the push, and no lw_recycle is made at collection.
constexpr uint32_t LOF_NotCounted = 1u;

// The record of a descriptor. Descriptors are statics made when the library loads and read-only
// after that, so any number of Lua states on any threads share them.
struct ORVEX_API _LuaType
{
    _LuaType *m_Next;          // the list that g_LuaTypeList heads
    LuaType *m_Parent;         // the base class's descriptor; null in the root
    const char *m_Name;        // Lua type name: the metatable's and the constructor's key
    uint32_t m_Flags2;         // the constructor's last argument; reserved
    uint32_t m_Flags1;         // the constructor's fifth argument; reserved
    LuaFuncTable *m_Functions; // may be null
    LuaMemberTable *m_Members; // may be null
    ScriptVal *m_Table;        // an empty table, owned

    // Makes the empty table, puts the descriptor at the head of g_LuaTypeList and fills the hash of
    // every row of both tables.
    _LuaType(const char *name, LuaType *parent, LuaFuncTable *functions, LuaMemberTable *members,
             unsigned long flags1, unsigned long flags2);
    // Takes the descriptor out of the list and deletes the table.
    virtual ~_LuaType();
    _LuaType(const _LuaType &) = delete;
    _LuaType &operator=(const _LuaType &) = delete;
};

// The operations. Each gets the descriptor at work, the state, the object in this descriptor's form
// and the descriptor of the userdata's record, finds its arguments on the stack and gives the count of
// Lua results it pushed. Every operation that a descriptor leaves alone goes to its parent (the object
// passed through lw_tobase and the parent's lw_frombase); the root's parent is null, which gives 0.
struct ORVEX_API LuaType : _LuaType
{
    using _LuaType::_LuaType;

    // The constructor in the table `class`; its arguments are the whole stack.
    virtual int lw_create(lua_State *state);
    virtual int lw_typename(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_istypeof(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_tostring(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_call(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_newindex(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_index(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_add(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_sub(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_mul(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_div(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_pow(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_unm(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_eq(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_lt(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_le(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_concat(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    // At the first push of the object in a state, and when Lua collects its userdata.
    virtual int lw_use(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    virtual int lw_recycle(LuaType *type, lua_State *state, void *object, LuaType *recordType);
    // Reserved: no metamethod reaches them.
    virtual int lw_reserved1(LuaType *type, lua_State *state, void *object, LuaType *recordType, void *a,
                             void *b, void *c);
    virtual int lw_reserved2(LuaType *type, lua_State *state, void *object, LuaType *recordType, void *a,
                             void *b, void *c);
    // Pointer adjustments between this class and its base, for multiple inheritance. Identity here.
    virtual void *lw_frombase(void *object);
    virtual void *lw_tobase(void *object);

    // Stores the constructor (a closure of luatype_call_create over this descriptor) in the global
    // table `class`, made if it is no table, and this type's metatable in the registry under its name.
    bool lw_register(lua_State *state);
    // The same on the table at `index`, which stays where it is.
    bool lw_register(lua_State *state, int index);
    // Pushes the typed userdata of `object` (nil for null) and gives 1.
    int lw_push(lua_State *state, void *object, unsigned long flags = 0);
    // Copies the field `key` of the global table `table` to the global of the same name, or every
    // field when `key` is null. Lifts a module into the global namespace. Gives true.
    static bool lw_flaunttable(lua_State *state, const char *table, const char *key);

    // True if this descriptor is `other` or derives from it.
    bool IsA(const LuaType *other) const;

protected:
    // The object as the parent sees it.
    void *ToParent(void *object) { return m_Parent->lw_frombase(lw_tobase(object)); }
};

// A descriptor of the native class T. The operations still take the object as void *; Object() gives
// it back as T *.
template <typename T> struct LuaTypeT : LuaType
{
    using LuaType::LuaType;
    static T *Object(void *object) { return static_cast<T *>(object); }
    int lw_push(lua_State *state, T *object, unsigned long flags = 0)
    {
        return LuaType::lw_push(state, object, flags);
    }
};

// The root descriptor "LuaClass": no parent, nothing to read or write, and every operator refused with
// "Illegal operator".
struct ORVEX_API LuaType_LuaClass : LuaTypeT<LuaClass>
{
    using LuaTypeT<LuaClass>::LuaTypeT;
    int lw_typename(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_istypeof(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_tostring(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_call(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_newindex(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_index(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_add(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_sub(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_mul(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_div(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_pow(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_unm(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_eq(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_lt(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_le(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_concat(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_use(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_recycle(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
};

// The descriptor "_ScriptObject" of remote objects (the object is a RemoteObject record): every
// operation is a command to the object's process, whose results come back as Lua values. A remote
// error reply is a Lua error carrying the peer's message; no reply at all gives no results.
struct ORVEX_API LuaType_RemoteObject : LuaTypeT<RemoteObject>
{
    using LuaTypeT<RemoteObject>::LuaTypeT;
    // class._ScriptObject(app, low, high): the object of that address in the application's process.
    int lw_create(lua_State *state) override;
    int lw_tostring(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_call(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_newindex(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_index(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_add(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_sub(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_mul(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_div(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_pow(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_unm(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_eq(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_lt(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_le(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_concat(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_use(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
    int lw_recycle(LuaType *type, lua_State *state, void *object, LuaType *recordType) override;
};

// The one descriptor of remote objects, "_ScriptObject", a LuaClass by its parent.
ORVEX_API extern LuaType_RemoteObject g_ScriptObjectLuaType;

// The head of the list of descriptors, newest first.
ORVEX_API extern _LuaType *g_LuaTypeList;

// Stores in the registry, under the descriptor's name, a new metatable whose fields are the generic
// metamethods below. lw_register does this; the equipping of a state does it for "_ScriptObject".
ORVEX_API void LuaTypeMetatable(lua_State *state, LuaType *type);

// The typed object record of the userdata at `index`, or null if the value is no typed object made by
// this library (so a foreign userdata is never read as one).
ORVEX_API LuaObject *lua_toLuaObject(lua_State *state, int index);

// The generic metamethods. Each finds the record of the userdata at stack index 1 (none: no results)
// and calls the operation of the record's descriptor.
ORVEX_API int luatype_call_typename(lua_State *state);
ORVEX_API int luatype_call_istypeof(lua_State *state);
ORVEX_API int luatype_call_tostring(lua_State *state);
ORVEX_API int luatype_call_call(lua_State *state);
ORVEX_API int luatype_call_gc(lua_State *state);
ORVEX_API int luatype_call_index(lua_State *state);
ORVEX_API int luatype_call_newindex(lua_State *state);
ORVEX_API int luatype_call_add(lua_State *state);
ORVEX_API int luatype_call_sub(lua_State *state);
ORVEX_API int luatype_call_mul(lua_State *state);
ORVEX_API int luatype_call_div(lua_State *state);
ORVEX_API int luatype_call_pow(lua_State *state);
ORVEX_API int luatype_call_unm(lua_State *state);
ORVEX_API int luatype_call_eq(lua_State *state);
ORVEX_API int luatype_call_lt(lua_State *state);
ORVEX_API int luatype_call_le(lua_State *state);
ORVEX_API int luatype_call_concat(lua_State *state);
// The constructor: a closure over a userdata that holds the descriptor.
ORVEX_API int luatype_call_create(lua_State *state);
// A member function read with "." : a closure over its row, its descriptor and the object's userdata.
ORVEX_API int luatype_call_member(lua_State *state);

} // namespace orvexScript
