// The class chain of every object that scripts, peers and layouts can see:
// LuaClass -> ScriptObject -> _Object -> RefObject.
// The order of the virtual operations is a contract with hosts compiled against the library:
// add new virtual operations only behind the existing ones, never in between.
// Reflection (ScriptInfo, ScriptSymbol) lives in objects/; this header only names those types.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

class KeID;
class ScriptVal;
class ScriptArgs;
class TagList;
class ScriptInfo;
struct LuaType;
struct LuaType_LuaClass;
class List; // host list types that hold RefObjects
class Node;

// An attribute tag: type nibble, repeatable bit and number in the low 32 bits of a pointer-wide word.
typedef uintptr_t Tag;

// Root of the chain: knows how to put itself on a Lua stack.
class ORVEX_API LuaClass
{
public:
    virtual ~LuaClass();
    // Pushes the object and gives the number of values pushed. The base pushes nil and gives 1;
    // a null state gives 0 and pushes nothing.
    virtual int lw_push(lua_State *state);

    // As lw_push, but a receiver below 0x10001 counts as no object and pushes nil, so that small
    // integers and null handed around as objects do not fault.
    int lw_safe_push(lua_State *state) { return lw_safe_push(this, state); }
    // The same for a pointer that may be null or a small integer: the check happens before any call
    // through the pointer, so it is well defined for every value.
    static int lw_safe_push(LuaClass *object, lua_State *state);

    // How an object without a Lua form of its own is pushed (nil, giving 1). The Lua language library
    // installs it, so the value layer needs no Lua header; until then such a push gives 0.
    using PushNilFunction = int (*)(lua_State *state);
    ORVEX_INTERNAL static void SetPushNil(PushNilFunction push);

    static LuaType_LuaClass s_LuaType; // the class's Lua descriptor, defined by the Lua language library
};

// What scripts and peers see. Abstract: IncRef, DecRef, GetScriptInfo and SetScriptInfo.
class ORVEX_API ScriptObject : public LuaClass
{
public:
    uint32_t m_SOFlags = 0; // bit 31: memory already taken by this dump pass; bit 30: named by address
    uint32_t m_SOPad = 0;
    void *m_SOData = nullptr;

    static constexpr uint32_t SOF_Dumped = 0x80000000u;
    // In the registry of objects named by address (values/ObjectAddress.h); the destructor takes the
    // object out. A copy is not registered, and assignment keeps the target's own state.
    static constexpr uint32_t SOF_AddressKnown = 0x40000000u;

    ScriptObject() = default;
    ScriptObject(const ScriptObject &other);
    ScriptObject &operator=(const ScriptObject &other);
    ~ScriptObject() override;

    ORVEX_VFPAD_20(ScriptObject)
    virtual bool _Do(unsigned long cmd, ScriptVal &args);
    virtual void IncRef() = 0;
    virtual void DecRef() = 0;
    virtual ScriptInfo *GetScriptInfo() const = 0;
    virtual void SetScriptInfo(ScriptInfo *info) = 0;
    virtual void GetObjectInfo(const ScriptVal &query, ScriptVal &result);
    // The filter of the information queries: is the piece called `name` wanted?
    virtual bool DoInfo(const ScriptVal &query, ScriptVal &result, const KeID &name);
    virtual void DoDumpMem(unsigned long flags);
    virtual unsigned long SizeOf() const;
    [[nodiscard]] virtual bool SetAttrsTagList(const TagList &tags);
    [[nodiscard]] virtual bool CopyAttr(unsigned long long tag, void *out) const;
    virtual unsigned long long AddNotify(ScriptObject *target, KeID name, unsigned long long id,
                                         ScriptVal *data, TagList *tags);
    [[nodiscard]] virtual bool RemoveNotify(ScriptObject *target, KeID name, unsigned long long id,
                                            TagList *tags);
    [[nodiscard]] virtual bool RemoveNotify(unsigned long long handle, TagList *tags);
    [[nodiscard]] virtual bool Notify(unsigned long long handle, ScriptObject *source, KeID name,
                                      unsigned long long id, ScriptVal *data, TagList *tags);

    // Entry of the memory dump: skips a null object or one already taken in this pass.
    void DumpMem(unsigned long flags);
};

// Inert bodies for the four abstract operations.
class ORVEX_API _Object : public ScriptObject
{
public:
    void IncRef() override {}
    void DecRef() override {}
    ScriptInfo *GetScriptInfo() const override { return nullptr; }
    void SetScriptInfo(ScriptInfo *) override {}
};

// An object with an atomic use count. Born with the process-wide initial use count; destroyed by the
// Recycle that takes the count from 1 to 0.
class ORVEX_API RefObject : public _Object
{
public:
    RefObject();
    RefObject(const RefObject &other);
    RefObject &operator=(const RefObject &) { return *this; } // the count is the object's own
    ~RefObject() override;

    void GetObjectInfo(const ScriptVal &query, ScriptVal &result) override;

    ORVEX_VFPAD_20(RefObject)
    virtual void Use() const;
    virtual void Recycle() const;
    [[nodiscard]] virtual bool DoTagList(unsigned long cmd, TagList &tags);
    [[nodiscard]] virtual bool DoTable(unsigned long cmd, ScriptVal &table);
    virtual void OnAddToList(List *list, Node *node, TagList *tags);
    virtual void OnRemoveFromList(List *list, Node *node, TagList *tags);

    int32_t GetUseCount() const { return m_UseCount.load(std::memory_order_relaxed); }

    // Attribute operations, resting on TagList and the virtual SetAttrsTagList / CopyAttr / DoTagList.
    // The variadic lists are tag, value pairs ended by a 0 tag (at most 200 words).
    [[nodiscard]] bool SetAttrs(Tag first, ...);
    [[nodiscard]] bool Do(unsigned long cmd, Tag first, ...);
    unsigned long GetAttr(Tag tag, unsigned long def = 0) const;
    double GetAttrD(Tag tag, double def = 0.0) const;
    void *GetAttrPtr(Tag tag, void *def = nullptr) const;
    bool GetAttrB(Tag tag, bool def = false) const;
    KeID GetAttrID(Tag tag) const;
    KeID GetAttrID(Tag tag, const KeID &def) const;

protected:
    mutable std::atomic<int32_t> m_UseCount;
};

// Null-safe Use and Recycle, for pointers that may be null.
inline void SafeUse(const RefObject *object)
{
    if (object) object->Use();
}
inline void SafeRecycle(const RefObject *object)
{
    if (object) object->Recycle();
}

ORVEX_API unsigned long GetInitUseCount();
ORVEX_API void SetInitUseCount(unsigned long count);
// Does nothing; it stands in the interface for hosts that call it.
ORVEX_API void _RemoveScriptObject(void *object, TagList *tags);

// The crash dump registers the function that adds a block of memory to the dump; until then
// ScriptObject::DoDumpMem adds nothing. Null unregisters.
void SetIncludeMemoryHook(void (*hook)(const void *address, size_t size));

} // namespace orvexScript
