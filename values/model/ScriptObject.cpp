// Bodies of the object chain: LuaClass, the defaults of ScriptObject, the information filter DoInfo,
// the memory dump entry, and RefObject's use count. RefObject's attribute operations are in
// RefObjectAttrs.cpp. LuaClass::s_LuaType is defined by the Lua language library.

#include "values/model/ScriptObject.h"

#include <atomic>
#include <cstring>

#include "values/model/KeID.h"
#include "values/model/ObjectAddress.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{
std::atomic<unsigned long> s_InitUseCount{1};
std::atomic<void (*)(const void *, size_t)> s_IncludeMemory{nullptr};

// A receiver's address, read so that the compiler can't assume it is a valid object.
uintptr_t AddressOf(const void *object)
{
    const void *volatile address = object;
    return reinterpret_cast<uintptr_t>(address);
}
} // namespace

// ---- LuaClass -------------------------------------------------------------------------------------

namespace
{
std::atomic<LuaClass::PushNilFunction> s_PushNil{nullptr};

int PushNil(lua_State *state)
{
    const LuaClass::PushNilFunction push = s_PushNil.load(std::memory_order_acquire);
    return state && push ? push(state) : 0;
}
} // namespace

LuaClass::~LuaClass() = default;

void LuaClass::SetPushNil(PushNilFunction push)
{
    s_PushNil.store(push, std::memory_order_release);
}

int LuaClass::lw_push(lua_State *state)
{
    return PushNil(state);
}

int LuaClass::lw_safe_push(LuaClass *object, lua_State *state)
{
    // Small integers and null arrive here as "objects" from loosely typed callers.
    if (reinterpret_cast<uintptr_t>(object) < 0x10001) return PushNil(state);
    return object->lw_push(state);
}

// ---- ScriptObject ---------------------------------------------------------------------------------

ScriptObject::ScriptObject(const ScriptObject &other)
    : LuaClass(other), m_SOFlags(other.m_SOFlags & ~SOF_AddressKnown), m_SOPad(other.m_SOPad),
      m_SOData(other.m_SOData)
{
}

ScriptObject &ScriptObject::operator=(const ScriptObject &other)
{
    m_SOFlags = (other.m_SOFlags & ~SOF_AddressKnown) | (m_SOFlags & SOF_AddressKnown);
    m_SOPad = other.m_SOPad;
    m_SOData = other.m_SOData;
    return *this;
}

// The last destructor of every object: no number from a peer may lead to it after this. Objects that
// were never registered pay one test of their flags.
ScriptObject::~ScriptObject()
{
    if (m_SOFlags & SOF_AddressKnown) UnregisterObjectAddress(this);
}

// ---- ScriptObject defaults ------------------------------------------------------------------------

bool ScriptObject::_Do(unsigned long, ScriptVal &)
{
    return false;
}

void ScriptObject::GetObjectInfo(const ScriptVal &, ScriptVal &) {}

bool ScriptObject::DoInfo(const ScriptVal &query, ScriptVal &result, const KeID &name)
{
    if (query.IsNil())
    {
        // The caller lists what the object could tell: note the name, gather no value.
        if (!result.IsTable()) result = SV_Table;
        result[name] = true;
        return false;
    }
    if (query.IsString())
    {
        const char *text = query.ToString("");
        return std::strcmp(text, "*") == 0 || query == name;
    }
    if (query.IsTable()) return query[name].ToBoolean(false);
    return false;
}

void ScriptObject::DoDumpMem(unsigned long flags)
{
    if (flags & 1) return;
    if (auto include = s_IncludeMemory.load()) include(this, SizeOf());
}

unsigned long ScriptObject::SizeOf() const
{
    return sizeof(ScriptObject);
}

bool ScriptObject::SetAttrsTagList(const TagList &)
{
    return true;
}

bool ScriptObject::CopyAttr(unsigned long long, void *) const
{
    return false;
}

unsigned long long ScriptObject::AddNotify(ScriptObject *, KeID, unsigned long long, ScriptVal *, TagList *)
{
    return 0;
}

bool ScriptObject::RemoveNotify(ScriptObject *, KeID, unsigned long long, TagList *)
{
    return false;
}

bool ScriptObject::RemoveNotify(unsigned long long, TagList *)
{
    return false;
}

bool ScriptObject::Notify(unsigned long long, ScriptObject *, KeID, unsigned long long, ScriptVal *,
                          TagList *)
{
    return false;
}

__attribute__((no_sanitize("undefined"))) void ScriptObject::DumpMem(unsigned long flags)
{
    if (AddressOf(this) == 0 || (m_SOFlags & SOF_Dumped)) return;
    m_SOFlags |= SOF_Dumped;
    // Linux has no structured exception guard here: a fault in one object's dump reaches the crash
    // handler's own signal handling.
    DoDumpMem(flags);
}

// ---- RefObject ------------------------------------------------------------------------------------

RefObject::RefObject() : m_UseCount(static_cast<int32_t>(GetInitUseCount())) {}

RefObject::RefObject(const RefObject &other)
    : _Object(other), m_UseCount(static_cast<int32_t>(GetInitUseCount()))
{
}

RefObject::~RefObject() = default;

void RefObject::GetObjectInfo(const ScriptVal &query, ScriptVal &result)
{
    if (!DoInfo(query, result, KeID("UseCount", false))) return;
    if (!result.IsTable()) result = SV_Table;
    result["UseCount"] = GetUseCount();
}

void RefObject::Use() const
{
    m_UseCount.fetch_add(1, std::memory_order_relaxed);
}

void RefObject::Recycle() const
{
    if (m_UseCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool RefObject::DoTagList(unsigned long, TagList &)
{
    return false;
}

bool RefObject::DoTable(unsigned long, ScriptVal &)
{
    return false;
}

void RefObject::OnAddToList(List *, Node *, TagList *)
{
    Use();
}

void RefObject::OnRemoveFromList(List *, Node *, TagList *)
{
    Recycle();
}

// ---- free functions -------------------------------------------------------------------------------

unsigned long GetInitUseCount()
{
    return s_InitUseCount.load();
}

void SetInitUseCount(unsigned long count)
{
    s_InitUseCount.store(count);
}

void _RemoveScriptObject(void *, TagList *) {}

void SetIncludeMemoryHook(void (*hook)(const void *, size_t))
{
    s_IncludeMemory.store(hook);
}

} // namespace orvexScript
