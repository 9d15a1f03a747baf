// The Lua value bridge: ToLua, ToLuaRet and FromLua, the object userdata and their weak caches, the
// stack helpers, the closures that stand for remote functions, and compiling source to binary chunks.

#include "languages/lua/LuaBridge.h"

#include <lua.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaType.h"
#include "languages/lua/LuaTypeInternal.h"
#include "remote/RemoteApp.h"
#include "remote/RemoteObject.h"
#include "remote/Scripting.h"
#include "values/base/DumpBuffer.h"
#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{

namespace
{

constexpr const char *kMemBlockType = "MemBlock";
constexpr const char *kScriptObjectType = "_ScriptObject";
// Flags a table carries to Lua: all but the kind byte and SVF_Const.
constexpr uint32_t kCarriedFlags = 0xFFFFFD00u;
// The most results a reply unpacks to.
constexpr int kMaxReplyResults = 4096;

// The registry keys of the two caches: any two distinct static addresses serve, and these are the
// ones other code that reads the caches knows.
void *TypedCacheKey()
{
    return reinterpret_cast<void *>(&lua_pushLuaObject);
}
void *PlainCacheKey()
{
    return reinterpret_cast<void *>(&lua_pushobject);
}

// Pushes the cache of `key`, made on first use: a table with weak keys and values.
void PushCache(lua_State *state, void *key)
{
    lua_pushlightuserdata(state, key);
    lua_rawget(state, LUA_REGISTRYINDEX);
    if (lua_istable(state, -1)) return;
    lua_pop(state, 1);
    lua_newtable(state);
    lua_createtable(state, 0, 1);
    lua_pushliteral(state, "kv");
    lua_setfield(state, -2, "__mode");
    lua_setmetatable(state, -2);
    lua_pushlightuserdata(state, key);
    lua_pushvalue(state, -2);
    lua_rawset(state, LUA_REGISTRYINDEX);
}

// With the cache on top: records cache[metatable of `name`] = name, so that a reader of the cache
// can tell a userdata's type from its metatable.
void NoteTypeName(lua_State *state, const char *name)
{
    if (!name) return;
    lua_getfield(state, LUA_REGISTRYINDEX, name);
    if (lua_istable(state, -1))
    {
        lua_pushstring(state, name);
        lua_rawset(state, -3);
    }
    else
    {
        lua_pop(state, 1);
    }
}

// With the cache on top: pushes the cached userdata of `object` and gives true, or pushes nothing.
bool PushCached(lua_State *state, void *object)
{
    lua_pushlightuserdata(state, object);
    lua_rawget(state, -2);
    if (lua_type(state, -1) == LUA_TUSERDATA) return true;
    lua_pop(state, 1);
    return false;
}

// With the cache below the new userdata on top: stores cache[object] = userdata.
void Remember(lua_State *state, void *object)
{
    lua_pushlightuserdata(state, object);
    lua_pushvalue(state, -2);
    lua_rawset(state, -4);
}

void SetMetatableByName(lua_State *state, const char *name)
{
    if (!name) return;
    lua_getfield(state, LUA_REGISTRYINDEX, name);
    if (lua_istable(state, -1))
        lua_setmetatable(state, -2);
    else
        lua_pop(state, 1);
}

// ---- MemBlock userdata ------------------------------------------------------------------------------

// The block of a "MemBlock" userdata at `index`, or null (another value, or a userdata without one).
MemBlock *ToMemBlock(lua_State *state, int index)
{
    if (lua_type(state, index) != LUA_TUSERDATA || lua_objlen(state, index) != sizeof(MemBlock *)) return nullptr;
    if (!lua_getmetatable(state, index)) return nullptr;
    lua_getfield(state, LUA_REGISTRYINDEX, kMemBlockType);
    const bool ours = lua_rawequal(state, -1, -2);
    lua_pop(state, 2);
    return ours ? *static_cast<MemBlock **>(lua_touserdata(state, index)) : nullptr;
}

void FreeMemBlock(MemBlock *block)
{
    if (!block) return;
    std::free(block->m_Ptr);
    delete block;
}

// A block of `size` zero bytes (size 0: no bytes), or null if memory ran out.
MemBlock *NewMemBlock(size_t size)
{
    auto *block = new (std::nothrow) MemBlock();
    if (!block) return nullptr;
    if (size > 0)
    {
        block->m_Ptr = std::calloc(size, 1);
        if (!block->m_Ptr)
        {
            delete block;
            return nullptr;
        }
        block->m_Size = static_cast<uint32_t>(size);
    }
    return block;
}

int MemBlockGc(lua_State *state)
{
    if (MemBlock *block = ToMemBlock(state, 1))
    {
        *static_cast<MemBlock **>(lua_touserdata(state, 1)) = nullptr;
        FreeMemBlock(block);
    }
    return 0;
}

// A byte index n in 1..size of the block, or 0.
uint32_t ByteIndex(lua_State *state, int index, const MemBlock *block)
{
    if (lua_type(state, index) != LUA_TNUMBER) return 0;
    const lua_Number n = lua_tonumber(state, index);
    if (!(n >= 1 && n <= block->m_Size)) return 0;
    return static_cast<uint32_t>(n);
}

ORVEX_LUA_FUNCTION(MemBlockToString)
{
    const MemBlock *block = ToMemBlock(L, 1);
    if (!block || !block->m_Ptr) return 0;
    lua_pushfstring(L, "MemBlock (%d bytes)", static_cast<int>(block->m_Size));
    return 1;
}

ORVEX_LUA_FUNCTION(MemBlockIndex)
{
    const MemBlock *block = ToMemBlock(L, 1);
    if (!block) return 0;
    if (lua_type(L, 2) == LUA_TSTRING && std::strcmp(lua_tostring(L, 2), "Size") == 0)
    {
        lua_pushnumber(L, block->m_Size);
        return 1;
    }
    const uint32_t n = block->m_Ptr ? ByteIndex(L, 2, block) : 0;
    if (n == 0) return 0;
    lua_pushinteger(L, static_cast<const unsigned char *>(block->m_Ptr)[n - 1]);
    return 1;
}

ORVEX_LUA_FUNCTION(MemBlockNewIndex)
{
    MemBlock *block = ToMemBlock(L, 1);
    if (!block || !block->m_Ptr || lua_type(L, 3) != LUA_TNUMBER) return 0;
    const uint32_t n = ByteIndex(L, 2, block);
    if (n == 0) return 0;
    // Truncated to an integer, then to its low byte: 300 stores 44, -1 stores 255.
    const double value = std::trunc(lua_tonumber(L, 3));
    const auto wide = std::isfinite(value) ? static_cast<int64_t>(std::fmod(value, 4294967296.0)) : 0;
    static_cast<unsigned char *>(block->m_Ptr)[n - 1] = static_cast<unsigned char>(wide & 0xFF);
    return 0;
}

// The global MemBlock(size): a block of that many zero bytes; nothing for a size below 1, a missing
// number or a failed allocation.
ORVEX_LUA_FUNCTION(MemBlockNew)
{
    if (lua_type(L, 1) != LUA_TNUMBER) return 0;
    const lua_Number size = std::trunc(lua_tonumber(L, 1));
    if (!(size >= 1 && size <= 0xFFFFFFFFu)) return 0;
    MemBlock *block = NewMemBlock(static_cast<size_t>(size));
    if (!block) return 0;
    lua_pushobject(L, block, kMemBlockType);
    return 1;
}

// The global HexData(text): the numbers of the text in base 16, each cut to a byte, as a new block;
// reading stops at the first thing that isn't a number. Anything but a string gives nothing.
size_t ParseHexBytes(const char *text, uint8_t *out)
{
    size_t count = 0;
    for (;;)
    {
        char *end = nullptr;
        const long value = std::strtol(text, &end, 16);
        if (end == text) return count;
        if (out) out[count] = static_cast<uint8_t>(value);
        ++count;
        text = end;
    }
}

ORVEX_LUA_FUNCTION(HexDataNew)
{
    if (lua_type(L, 1) != LUA_TSTRING) return 0;
    const char *text = lua_tostring(L, 1);
    MemBlock *block = NewMemBlock(ParseHexBytes(text, nullptr));
    if (!block) return 0;
    ParseHexBytes(text, static_cast<uint8_t *>(block->m_Ptr));
    lua_pushobject(L, block, kMemBlockType);
    return 1;
}

// Makes the "MemBlock" metatable in the registry if the state has none.
void EnsureMemBlockType(lua_State *state)
{
    lua_getfield(state, LUA_REGISTRYINDEX, kMemBlockType);
    const bool present = lua_istable(state, -1);
    lua_pop(state, 1);
    if (present) return;
    lua_createtable(state, 0, 4);
    lua_pushcfunction(state, MemBlockGc);
    lua_setfield(state, -2, "__gc");
    lua_pushcfunction(state, MemBlockToString);
    lua_setfield(state, -2, "__tostring");
    lua_pushcfunction(state, MemBlockIndex);
    lua_setfield(state, -2, "__index");
    lua_pushcfunction(state, MemBlockNewIndex);
    lua_setfield(state, -2, "__newindex");
    lua_setfield(state, LUA_REGISTRYINDEX, kMemBlockType);
}

// Pushes a new "MemBlock" userdata with a copy of `size` bytes; nil if memory ran out.
void PushMemBlockCopy(lua_State *state, const void *bytes, uint32_t size)
{
    MemBlock *block = NewMemBlock(size);
    if (!block)
    {
        lua_pushnil(state);
        return;
    }
    if (size > 0) std::memcpy(block->m_Ptr, bytes, size);
    EnsureMemBlockType(state);
    lua_pushobject(state, block, kMemBlockType);
}

// ---- values to Lua ----------------------------------------------------------------------------------

struct ToLuaContext
{
    RemoteApp *app;
    ToLuaFilter filter;
    void *filterData;
};

int PushValue(const ToLuaContext &context, lua_State *state, ScriptVal &value, int depth);

// The global _ALERT with `message`, under a protected call; without one the message goes to stderr,
// so that it is never lost.
void Alert(lua_State *state, const char *message)
{
    lua_getglobal(state, "_ALERT");
    if (lua_isfunction(state, -1))
    {
        lua_pushstring(state, message ? message : "?");
        if (lua_pcall(state, 1, 0, 0) == 0) return;
    }
    fprintf(stderr, "%s\n", message ? message : "?");
    lua_pop(state, 1);
}

// Runs a code value; its results stay. Gives their count.
int PushCode(lua_State *state, const ScriptVal &value)
{
    const int top = lua_gettop(state);
    const auto *bytes = static_cast<const char *>(value.ToCodePtr());
    const size_t size = value.ToCodeLen();
    if (luaL_loadbuffer(state, bytes ? bytes : "", bytes ? size : 0, "<code>") != 0 ||
        lua_pcall(state, 0, LUA_MULTRET, 0) != 0)
    {
        Alert(state, lua_tostring(state, -1));
        lua_settop(state, top);
        return 0;
    }
    return lua_gettop(state) - top;
}

void PushFunction(lua_State *state, const ScriptVal &value)
{
    struct FunctionValue
    {
        uint64_t id;
        uint32_t flags;
    };
    auto *function = static_cast<FunctionValue *>(lua_newuserdata(state, 16));
    function->id = value.ToFunction();
    function->flags = value.m_Flags & ~0xFFu;
    lua_pushcclosure(state, lua_function_call, 1);
}

// A key that Lua cannot store (nil, NaN) is left out like a key without a Lua form.
bool StorableKey(lua_State *state)
{
    const int type = lua_type(state, -1);
    return type != LUA_TNIL && !(type == LUA_TNUMBER && std::isnan(lua_tonumber(state, -1)));
}

// Pushes a table or args value. Entries whose key or value has no Lua form are left out.
int PushTable(const ToLuaContext &context, lua_State *state, ScriptVal &value, int depth)
{
    if (depth > kLuaMaxNesting || !lua_checkstack(state, 10)) return -1;
    const bool args = value.IsArgs();
    const uint32_t flags = args ? 0 : (value.m_Flags & kCarriedFlags);
    bool plain = true;
    if (flags & SVF_Ordered)
    {
        // An ordered table where the state knows them; a plain one (with its flags) where not.
        lua_getglobal(state, "table");
        if (lua_istable(state, -1))
        {
            lua_getfield(state, -1, "ordered");
            lua_remove(state, -2);
            if (lua_isfunction(state, -1) && lua_pcall(state, 0, 1, 0) == 0 && lua_istable(state, -1))
                plain = false;
        }
        if (plain) lua_pop(state, 1);
    }
    if (plain)
    {
        int numbers = 0;
        int others = 0;
        for (TableEntry *entry = value.FirstEntry(); entry; entry = entry->m_Next)
            ++(entry->m_Key.IsNumber() ? numbers : others);
        lua_createtable(state, numbers, others + 2);
    }
    const int table = lua_gettop(state);
    if (!args)
    {
        if (const char *ctor = value.GetConstructor())
        {
            lua_pushstring(state, ctor);
            lua_setfield(state, table, "__ctor");
        }
        if (flags & ~SVF_Single)
        {
            lua_pushnumber(state, flags);
            lua_setfield(state, table, "__flags");
        }
    }
    for (TableEntry *entry = value.FirstEntry(); entry; entry = entry->m_Next)
    {
        if (plain && entry->m_Key.IsNumber())
        {
            // The common array entry: stored by its index without pushing the key.
            const double key = entry->m_Key.ToNumber();
            if (key >= 1 && key <= 2147483647.0 && key == std::floor(key))
            {
                const int count = PushValue(context, state, entry->m_Value, depth + 1);
                if (count < 1)
                {
                    lua_settop(state, table);
                    continue;
                }
                lua_settop(state, table + 1);
                lua_rawseti(state, table, static_cast<int>(key));
                continue;
            }
        }
        if (PushValue(context, state, entry->m_Key, depth + 1) != 1 || !StorableKey(state))
        {
            lua_settop(state, table);
            continue;
        }
        const int count = PushValue(context, state, entry->m_Value, depth + 1);
        if (count < 1)
        {
            lua_settop(state, table);
            continue;
        }
        lua_settop(state, table + 2);
        if (plain)
            lua_rawset(state, table);
        else
            lua_settable(state, table);
    }
    return 1;
}

// Pushes `value` and gives the count of values pushed: 1, any number for code, or -1 when the kind has
// no Lua form (nothing pushed).
int PushValue(const ToLuaContext &context, lua_State *state, ScriptVal &value, int depth)
{
    if (context.filter && context.filter(context.app, state, value, context.filterData)) return 1;
    if (g_ScriptConfig && g_ScriptConfig->valueToScript)
    {
        const int top = lua_gettop(state);
        if (g_ScriptConfig->valueToScript(g_ScriptConfig->user, state, value) > 0) return lua_gettop(state) - top;
    }
    switch (value.Type())
    {
    case SV_Nil:
        lua_pushnil(state);
        return 1;
    case SV_Number:
        lua_pushnumber(state, value.m_Value.m_Number);
        return 1;
    case SV_String:
        lua_pushstring(state, value.ToString(""));
        return 1;
    case SV_Boolean:
        lua_pushboolean(state, value.m_Value.m_Boolean);
        return 1;
    case SV_MemBlock:
        PushMemBlockCopy(state, value.m_Value.m_MemBlock.m_Ptr,
                         value.m_Value.m_MemBlock.m_Ptr ? value.m_Value.m_MemBlock.m_Size : 0);
        return 1;
    case SV_RemoteObject:
        _PushScriptObject(state, value.m_Value.m_RemoteObject, true);
        return 1;
    case SV_LocalObject:
    {
        // A local object goes to Lua as a record of the connection that names it.
        ScriptObject *object = value.m_Value.m_LocalObject;
        RemoteObject *record = nullptr;
        if (object && context.app && g_ScriptConfig && g_ScriptConfig->root)
            record = context.app->IncLocalRef(object);
        if (!record)
        {
            lua_pushnil(state);
            return 1;
        }
        _PushScriptObject(state, record, true);
        context.app->DecLocalRef(object);
        return 1;
    }
    case SV_Function:
        PushFunction(state, value);
        return 1;
    case SV_Code:
        return PushCode(state, value);
    case SV_Table:
    case SV_Args:
        return PushTable(context, state, value, depth);
    default:
        return -1;
    }
}

// ---- values from Lua --------------------------------------------------------------------------------

struct FromLuaContext
{
    FromLuaFilter filter;
    void *filterData;
    bool consume;
    std::vector<const void *> path; // the tables being read, outermost first
};

bool ReadValue(FromLuaContext &context, lua_State *state, int index, ScriptVal &out, int depth);

// The entries of a table under construction, handed to the value on every way out (a Lua error
// included): numbers first, ascending, then the other keys in the order read.
class EntryLists
{
public:
    explicit EntryLists(ScriptVal &out) : m_Out(out) {}
    EntryLists(const EntryLists &) = delete;
    EntryLists &operator=(const EntryLists &) = delete;
    ~EntryLists() { Finish(); }

    void Add(TableEntry *entry, bool number)
    {
        if (number)
        {
            const double key = entry->m_Key.ToNumber();
            if (m_NumberTail && !(key > m_LastNumber)) m_Sorted = false;
            m_LastNumber = key;
            Link(m_Numbers, m_NumberTail, entry);
        }
        else
        {
            Link(m_Others, m_OtherTail, entry);
        }
    }

    // Gives the lists to the table; false if sorting had no memory (the numbers then stay unsorted).
    bool Finish()
    {
        if (m_Done) return true;
        m_Done = true;
        bool ok = true;
        if (!m_Sorted) ok = SortNumbers();
        TableEntry *head = m_Numbers ? m_Numbers : m_Others;
        if (m_NumberTail) m_NumberTail->m_Next = m_Others;
        m_Out.SetTable(head);
        return ok;
    }

private:
    static void Link(TableEntry *&head, TableEntry *&tail, TableEntry *entry)
    {
        if (tail)
            tail->m_Next = entry;
        else
            head = entry;
        tail = entry;
    }

    bool SortNumbers()
    {
        std::vector<TableEntry *> entries;
        try
        {
            for (TableEntry *entry = m_Numbers; entry; entry = entry->m_Next)
                entries.push_back(entry);
        }
        catch (const std::bad_alloc &)
        {
            return false;
        }
        std::sort(entries.begin(), entries.end(), [](const TableEntry *a, const TableEntry *b) {
            return a->m_Key.ToNumber() < b->m_Key.ToNumber();
        });
        for (size_t i = 0; i + 1 < entries.size(); ++i)
            entries[i]->m_Next = entries[i + 1];
        entries.back()->m_Next = nullptr;
        m_Numbers = entries.front();
        m_NumberTail = entries.back();
        return true;
    }

    ScriptVal &m_Out;
    TableEntry *m_Numbers = nullptr;
    TableEntry *m_NumberTail = nullptr;
    TableEntry *m_Others = nullptr;
    TableEntry *m_OtherTail = nullptr;
    double m_LastNumber = 0;
    bool m_Sorted = true;
    bool m_Done = false;
};

// The pair on top of the stack (key below value) as a side key or an entry; false ends the walk.
bool ReadPair(FromLuaContext &context, lua_State *state, ScriptVal &out, EntryLists &lists, int depth)
{
    const int value = lua_gettop(state);
    const int key = value - 1;
    if (lua_type(state, key) == LUA_TSTRING)
    {
        const char *name = lua_tostring(state, key);
        if (std::strcmp(name, "__ctor") == 0)
        {
            if (lua_type(state, value) == LUA_TSTRING) out.SetConstructor(lua_tostring(state, value));
            return true;
        }
        if (std::strcmp(name, "__flags") == 0)
        {
            if (lua_type(state, value) == LUA_TNUMBER)
            {
                const double number = lua_tonumber(state, value);
                const auto word = number >= 0 && number < 4294967296.0 ? static_cast<uint32_t>(number) : 0u;
                out.m_Flags = (out.m_Flags & SV_TypeMask) | (word & ~SV_TypeMask);
            }
            return true;
        }
    }
    auto *entry = new TableEntry();
    if (!entry) return false;
    // The entry belongs to the table from here on, whatever its conversion gives.
    const bool number = lua_type(state, key) == LUA_TNUMBER;
    if (number) entry->m_Key = lua_tonumber(state, key);
    lists.Add(entry, number);
    if (!number && !ReadValue(context, state, key, entry->m_Key, depth + 1)) return false;
    return ReadValue(context, state, value, entry->m_Value, depth + 1);
}

bool ReadTable(FromLuaContext &context, lua_State *state, int index, ScriptVal &out, int depth)
{
    out = ScriptVal(SV_Table, nullptr);
    if (depth > kLuaMaxNesting || !lua_checkstack(state, 10)) return false;
    const void *identity = lua_topointer(state, index);
    if (std::find(context.path.begin(), context.path.end(), identity) != context.path.end()) return false;
    context.path.push_back(identity);

    bool ordered = false;
    if (lua_getmetatable(state, index))
    {
        lua_getglobal(state, "_orderedtable_meta");
        ordered = lua_rawequal(state, -1, -2);
        lua_pop(state, 2);
    }
    if (ordered) out.SetFlags(SVF_Ordered);

    bool ok = true;
    {
        EntryLists lists(out);
        const int top = lua_gettop(state);
        if (!ordered)
        {
            lua_pushnil(state);
            while (lua_next(state, index))
            {
                if (!ReadPair(context, state, out, lists, depth))
                {
                    ok = false;
                    break;
                }
                lua_pop(state, 1);
                if (context.consume)
                {
                    // Clearing a field that exists is allowed while lua_next walks the table.
                    lua_pushvalue(state, -1);
                    lua_pushnil(state);
                    lua_rawset(state, index);
                }
            }
        }
        else
        {
            lua_pushnil(state); // the key
            for (;;)
            {
                lua_getglobal(state, "_orderedtable_next");
                lua_pushvalue(state, index);
                lua_pushvalue(state, -3);
                if (lua_pcall(state, 2, 2, 0) != 0)
                    break;
                if (lua_isnil(state, -2))
                    break;
                if (!ReadPair(context, state, out, lists, depth))
                {
                    ok = false;
                    break;
                }
                lua_pop(state, 1);
                lua_remove(state, -2); // the old key; the new one stays
                if (context.consume)
                {
                    lua_pushvalue(state, -1);
                    lua_pushnil(state);
                    lua_rawset(state, index);
                }
            }
        }
        lua_settop(state, top);
        ok = lists.Finish() && ok;
    }
    context.path.pop_back();
    return ok;
}

bool ReadValue(FromLuaContext &context, lua_State *state, int index, ScriptVal &out, int depth)
{
    if (context.filter && context.filter(state, index, out, context.filterData)) return true;
    if (g_ScriptConfig && g_ScriptConfig->valueFromScript &&
        g_ScriptConfig->valueFromScript(g_ScriptConfig->user, state, index, out))
        return true;
    switch (lua_type(state, index))
    {
    case LUA_TNIL:
        out.CleanUp();
        return true;
    case LUA_TNUMBER:
        out = lua_tonumber(state, index);
        return true;
    case LUA_TBOOLEAN:
        out = static_cast<bool>(lua_toboolean(state, index));
        return true;
    case LUA_TSTRING:
    {
        size_t length = 0;
        const char *text = lua_tolstring(state, index, &length);
        if (std::strlen(text) == length)
            out = ScriptVal(text, static_cast<int>(length));
        else
            out = ScriptVal(MemBlock(const_cast<char *>(text), length));
        return true;
    }
    case LUA_TTABLE:
        return ReadTable(context, state, index, out, depth);
    case LUA_TFUNCTION:
    {
        out.CleanUp();
        if (lua_iscfunction(state, index)) return true;
        lf_Buffer buffer;
        lua_pushvalue(state, index);
        const int failed = lua_dump(state, lf_Buffer::Writer, &buffer);
        lua_pop(state, 1);
        if (failed == 0 && buffer.m_Data) out = ScriptVal(buffer.m_Data, static_cast<unsigned long>(buffer.m_Length), 0);
        return true;
    }
    case LUA_TUSERDATA:
    {
        if (lua_getmetatable(state, index))
        {
            lua_getfield(state, LUA_REGISTRYINDEX, kScriptObjectType);
            const bool remote = lua_rawequal(state, -1, -2);
            lua_pop(state, 2);
            if (remote)
            {
                const LuaObject *record = lua_toLuaObject(state, index);
                auto *object = record ? static_cast<RemoteObject *>(record->object) : nullptr;
                if (!object)
                    out.CleanUp();
                else if (object->m_Object)
                    out = ScriptVal(object->m_Object);
                else
                {
                    ScriptValue payload{};
                    payload.m_RemoteObject = object;
                    out.Set(SV_RemoteObject, &payload);
                }
                return true;
            }
            if (const MemBlock *block = ToMemBlock(state, index))
            {
                out = ScriptVal(*block);
                return true;
            }
            lua_getfield(state, LUA_REGISTRYINDEX, kMemBlockType);
            lua_getmetatable(state, index);
            const bool emptyBlock = lua_rawequal(state, -1, -2);
            lua_pop(state, 2);
            if (emptyBlock)
            {
                out = ScriptVal(MemBlock());
                return true;
            }
        }
        break;
    }
    default:
        break;
    }
    return luaL_error(state, "Unsupported type for custom data! (%s)", luaL_typename(state, index)) != 0;
}

} // namespace

// ---- exported ---------------------------------------------------------------------------------------

bool ToLua(RemoteApp *app, lua_State *state, ScriptVal &value, ToLuaFilter filter, void *filterData, bool, TagList *)
{
    const ToLuaContext context{app, filter, filterData};
    return PushValue(context, state, value, 0) >= 0;
}

uint32_t ToLuaRet(RemoteApp *app, lua_State *state, ScriptVal &value, ToLuaFilter filter, void *filterData, bool,
                  TagList *)
{
    if (!value.IsTable() && !value.IsArgs()) return 0;
    int count = 0;
    for (TableEntry *entry = value.FirstEntry(); entry; entry = entry->m_Next)
    {
        if (!entry->m_Key.IsNumber()) continue;
        const double key = entry->m_Key.ToNumber();
        if (key <= -1 && key >= -kMaxReplyResults && key == std::floor(key))
            count = std::max(count, static_cast<int>(-key));
    }
    if (count == 0 || !lua_checkstack(state, count + 10)) return 0;
    std::vector<ScriptVal *> results(static_cast<size_t>(count) + 1, nullptr);
    for (TableEntry *entry = value.FirstEntry(); entry; entry = entry->m_Next)
    {
        if (!entry->m_Key.IsNumber()) continue;
        const double key = -entry->m_Key.ToNumber();
        if (key >= 1 && key <= count && key == std::floor(key) && !results[static_cast<size_t>(key)])
            results[static_cast<size_t>(key)] = &entry->m_Value;
    }
    const ToLuaContext context{app, filter, filterData};
    for (int i = 1; i <= count; ++i)
    {
        const int top = lua_gettop(state);
        ScriptVal *result = results[static_cast<size_t>(i)];
        const int pushed = result ? PushValue(context, state, *result, 0) : -1;
        if (pushed < 1)
        {
            lua_settop(state, top);
            lua_pushnil(state);
        }
        else
        {
            lua_settop(state, top + 1);
        }
    }
    return static_cast<uint32_t>(count);
}

bool FromLua(lua_State *state, int32_t index, ScriptVal &out, FromLuaFilter filter, void *filterData, bool consume,
             TagList *)
{
    index = lua_absindex(state, index);
    FromLuaContext context{filter, filterData, consume, {}};
    const bool ok = ReadValue(context, state, index, out, 0);
    if (consume) lua_gc(state, LUA_GCCOLLECT, 0);
    return ok;
}

void ArgumentFromLua(lua_State *state, int index, ScriptVal &out)
{
    if (!FromLua(state, index, out))
        luaL_error(state, "table nested deeper than %d levels, containing itself, or too large to convert",
                   kLuaMaxNesting);
}

bool PushObjectUserdata(lua_State *state, void *object)
{
    PushCache(state, TypedCacheKey());
    const bool found = PushCached(state, object);
    lua_remove(state, found ? -2 : -1);
    return found;
}

void _PushScriptObject(lua_State *state, RemoteObject *object, bool keepReference)
{
    if (!object)
    {
        lua_pushnil(state);
        return;
    }
    lua_pushLuaObject(state, object, &g_ScriptObjectLuaType, 0);
    if (!keepReference) object->DecRef();
}

void lua_pushobject(lua_State *state, void *object, const char *typeName)
{
    if (!object)
    {
        lua_pushnil(state);
        return;
    }
    lua_checkstack(state, 6);
    PushCache(state, PlainCacheKey());
    NoteTypeName(state, typeName);
    if (!PushCached(state, object))
    {
        *static_cast<void **>(lua_newuserdata(state, sizeof(void *))) = object;
        SetMetatableByName(state, typeName);
        Remember(state, object);
    }
    lua_remove(state, -2);
}

void lua_pushLuaObject(lua_State *state, void *object, LuaType *type, unsigned long flags)
{
    if (!object || !type)
    {
        lua_pushnil(state);
        return;
    }
    lua_checkstack(state, 6);
    PushCache(state, TypedCacheKey());
    NoteTypeName(state, type->m_Name);
    void *base = type->lw_tobase(object);
    if (!PushCached(state, base))
    {
        auto **slot = static_cast<LuaObject **>(lua_newuserdata(state, sizeof(LuaObject *)));
        *slot = nullptr;
        auto *record = new (std::nothrow) LuaObject{type, base, static_cast<uint32_t>(flags)};
        if (!record)
        {
            lua_pop(state, 2);
            lua_pushnil(state);
            return;
        }
        *slot = record;
        SetMetatableByName(state, type->m_Name);
        if (!(flags & LOF_NotCounted)) type->lw_use(type, state, type->lw_frombase(base), type);
        Remember(state, base);
    }
    lua_remove(state, -2);
}

bool lua_istype(lua_State *state, int index, const char *typeName)
{
    index = lua_absindex(state, index);
    if (!typeName || lua_type(state, index) != LUA_TUSERDATA || !lua_getmetatable(state, index)) return false;
    lua_getfield(state, -1, "_istypeof");
    lua_remove(state, -2);
    if (!lua_isfunction(state, -1))
    {
        lua_pop(state, 1);
        return false;
    }
    lua_pushvalue(state, index);
    lua_pushstring(state, typeName);
    if (lua_pcall(state, 2, 1, 0) != 0)
    {
        lua_pop(state, 1);
        return false;
    }
    const bool yes = lua_type(state, -1) == LUA_TBOOLEAN && lua_toboolean(state, -1);
    lua_pop(state, 1);
    return yes;
}

void *lua_totype(lua_State *state, int index, const char *typeName)
{
    if (!lua_istype(state, index, typeName)) return nullptr;
    const LuaObject *record = lua_toLuaObject(state, index);
    return record ? record->object : nullptr;
}

double lua_tonumber_def(lua_State *state, int index, double def)
{
    return lua_isnumber(state, index) ? lua_tonumber(state, index) : def;
}

const char *lua_tostring_def(lua_State *state, int index, const char *def)
{
    return lua_isstring(state, index) ? lua_tostring(state, index) : def;
}

bool lua_toboolean_def(lua_State *state, int index, bool def)
{
    return lua_type(state, index) == LUA_TBOOLEAN ? lua_toboolean(state, index) != 0 : def;
}

int lua_absindex(lua_State *state, int index)
{
    return index <= 0 && index > -10000 ? lua_gettop(state) + index + 1 : index;
}

bool lua_istrue(lua_State *state, int index)
{
    switch (lua_type(state, index))
    {
    case LUA_TNONE:
    case LUA_TNIL:
        return false;
    case LUA_TBOOLEAN:
        return lua_toboolean(state, index) != 0;
    default:
        return true;
    }
}

int lua_function_call(lua_State *state)
{
    return LuaGuard(state, [](lua_State *L) {
        struct FunctionValue
        {
            uint64_t id;
            uint32_t flags;
        };
        const LuaObject *record = lua_toLuaObject(L, 1);
        const auto *function = static_cast<const FunctionValue *>(lua_touserdata(L, lua_upvalueindex(1)));
        if (!record || !function || !record->object || !record->type->IsA(&g_ScriptObjectLuaType)) return 0;
        auto *object = static_cast<RemoteObject *>(record->object);
        ScriptArgs args;
        ScriptValue payload{};
        payload.m_Function = function->id;
        args.FindKey(0) = ScriptVal(SVType(SV_Function, function->flags), &payload);
        const int top = lua_gettop(L);
        for (int index = 2; index <= top; ++index)
            ArgumentFromLua(L, index, args.FindKey(index - 1));
        ScriptVal reply = object->DoCommand(SST_CallFunction, args);
        return PushRemoteReply(object->m_App, L, reply);
    });
}

// ---- compiling --------------------------------------------------------------------------------------

namespace
{

MemBlock *CompileToCode(const char *source, size_t length, const char *chunkName, KeID &error)
{
    lua_State *state = luaL_newstate();
    if (!state) return nullptr;
    MemBlock *result = nullptr;
    luaL_openlibs(state);
    if (luaL_loadbuffer(state, source, length, chunkName) == 0)
    {
        lua_getglobal(state, "string");
        lua_getfield(state, -1, "dump");
        lua_remove(state, -2);
        lua_insert(state, -2);
        lua_pushboolean(state, 1); // stripped
        if (lua_pcall(state, 2, 1, 0) != 0)
        {
            error = KeID(lua_tostring(state, -1));
        }
        else
        {
            size_t size = 0;
            const char *dump = lua_tolstring(state, -1, &size);
            result = NewMemBlock(size);
            if (result && size > 0) std::memcpy(result->m_Ptr, dump, size);
            if (result) error = KeID("");
        }
    }
    lua_close(state);
    return result;
}

} // namespace

MemBlock *lua_StrToCode(const char *source, KeID &error, TagList *)
{
    if (!source) return nullptr;
    return CompileToCode(source, std::strlen(source), source, error);
}

MemBlock *lua_FileToCode(const char *fileName, KeID &error, TagList *)
{
    if (!fileName) return nullptr;
    MemBlock file(fileName);
    if (!file.m_Ptr || file.m_Size == 0)
    {
        std::free(file.m_Ptr);
        return nullptr;
    }
    std::string chunkName = std::string("@") + fileName;
    MemBlock *result = CompileToCode(static_cast<const char *>(file.m_Ptr), file.m_Size, chunkName.c_str(), error);
    std::free(file.m_Ptr);
    return result;
}

// ---- opening ----------------------------------------------------------------------------------------

void OpenMemBlock(lua_State *state)
{
    EnsureMemBlockType(state);
    lua_pushcfunction(state, MemBlockNew);
    lua_setglobal(state, "MemBlock");
    lua_pushcfunction(state, HexDataNew);
    lua_setglobal(state, "HexData");
}

void OpenObjectTypes(lua_State *state)
{
    OpenMemBlock(state);
    g_ScriptObjectLuaType.lw_register(state);
}

} // namespace orvexScript
