// Class records and their members: ScriptInfo (one per class), ScriptSymbol (one per member) and
// ScriptSymbolTags (a member whose help comes from declaration tags). A class names no base: its
// record links itself to the record of the first object built. The field orders are a contract with
// hosts compiled against the library. Numbers and flags are in SymbolNumbers.h.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/KeID.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptObject.h"
#include "values/model/ScriptVal.h"
#include "values/model/SymbolNumbers.h"
#include "values/tags/TagList.h"

namespace orvexScript
{

class ScriptSymbol;

// A member's handler: `self` is the owner's FromObj of the object.
typedef void (*ScriptFunc)(void *self, ScriptArgs &args, ScriptSymbol *symbol, bool set);

// The record of one class. Records are statics built before main (or built at run time) and stay in
// the registry g_ScriptInfoList until destroyed. Declare a class's symbols after its record, in the
// same source file, so that the record exists when they add themselves to it.
class ORVEX_API ScriptInfo
{
public:
    uint32_t m_Version;
    ScriptInfo *m_Next;                           // the registry
    ScriptInfo *m_Parent;                         // null in the root, NotLinked() until the class is linked
    const char *m_Name;                           // as scripts see it; not copied
    const char *m_Description;                    // one line for the class list; not copied
    const char *m_Text;                           // stored for the host, not read here
    ScriptSymbol *m_Symbols;                      // named symbols, newest first
    ScriptSymbol *m_Special[SST_NumSpecialSlots]; // index: number less 128
    ScriptVal m_CustomData;

    ScriptInfo(unsigned long version, const char *name, const char *description, const char *text);
    // Unlinks the record from the registry. Not virtual: FromObj and ToObj are the first two slots.
    ~ScriptInfo();
    ScriptInfo(const ScriptInfo &) = delete;
    ScriptInfo &operator=(const ScriptInfo &) = delete;

    // The class's `this` for an object, and back.
    virtual void *FromObj(ScriptObject *object) = 0;
    virtual ScriptObject *ToObj(void *self) = 0;

    // See the free FindSymbol.
    ScriptSymbol *FindSymbol(const char *name, unsigned long number) const;

    // The parent value of a record that is not linked yet.
    static ScriptInfo *NotLinked() { return reinterpret_cast<ScriptInfo *>(~uintptr_t(0)); }
    bool IsLinked() const { return m_Parent != NotLinked(); }
    // The parent, or null when there is none or it is not linked yet.
    ScriptInfo *Parent() const { return IsLinked() ? m_Parent : nullptr; }
};

// The record of class T, which derives from ScriptObject. Final, so that a record made at run time is
// deleted through its own type (ScriptInfo has no virtual destructor).
template <typename T> class ScriptInfoT final : public ScriptInfo
{
public:
    ScriptInfoT(unsigned long version, const char *name, const char *description = "",
                const char *text = nullptr)
        : ScriptInfo(version, name, description, text)
    {
    }
    void *FromObj(ScriptObject *object) override { return static_cast<T *>(object); }
    ScriptObject *ToObj(void *self) override { return static_cast<T *>(self); }
};

// One member of a class. It adds itself to its owner on construction: a kind (low byte below 128) to
// the front of the named list, a special number to its slot. It takes itself out again when destroyed.
class ORVEX_API ScriptSymbol
{
public:
    uint32_t m_Version;
    ScriptSymbol *m_Next;
    ScriptInfo *m_Owner;
    KeID m_Name;      // empty for unnamed symbols
    uint32_t m_Flags; // number in the low byte, SSF_ bits
    ScriptFunc m_Function;
    KeID m_ShortHelp;
    KeID m_LongHelp;

    ScriptSymbol(unsigned long version, const char *name, unsigned long flags, ScriptFunc function,
                 ScriptInfo &owner, const char *shortHelp = nullptr, const char *longHelp = nullptr);
    ~ScriptSymbol();
    ScriptSymbol(const ScriptSymbol &) = delete;
    ScriptSymbol &operator=(const ScriptSymbol &) = delete;

    uint32_t Number() const { return m_Flags & SSF_NumberMask; }

    // Calls the handler for `object`. A member flagged for the main thread (SSF_MainThread for reads
    // and calls, SSF_MainThreadWrite for writes) runs there, the caller waiting; otherwise it runs here.
    void Call(ScriptObject *object, ScriptArgs &args, bool set);
    // Calls the handler here, whatever the flags say.
    void CallHere(ScriptObject *object, ScriptArgs &args, bool set);
};

// A symbol whose help texts are built from declaration tags (SYMS_..., SYMB_Optional). The tags are
// tag, value pairs ended by a 0 tag; the list stays with the symbol.
class ORVEX_API ScriptSymbolTags : public ScriptSymbol
{
public:
    TagList *m_Tags;

    ScriptSymbolTags(unsigned long version, const char *name, unsigned long flags, ScriptFunc function,
                     ScriptInfo &owner, Tag tag, ...);
    ~ScriptSymbolTags();

    // The long help that `tags` give a member of kind `kind` named `name` in class `className`.
    static KeID BuildHelp(const TagList &tags, uint32_t kind, const char *className, const char *name);
};

// The head of the class registry, newest first.
ORVEX_API extern ScriptInfo *g_ScriptInfoList;
// The root record: the class "" that every chain ends in.
ORVEX_API extern ScriptInfo *const g_RootScriptInfo;

// The symbol for `name` and `number`, walking from `info` up the chain (null `info`: null).
// number >= 128: the first special slot so numbered. Null name: the first unnamed symbol of that
// kind. Otherwise the exact name, of kind `number` (0: any kind). Debug-only symbols count only
// while debugging, so they shadow nothing.
ORVEX_API ScriptSymbol *FindSymbol(const ScriptInfo *info, const char *name, unsigned long number);
// The symbol a function value names, if it is a function or constructor declared in `info`'s chain
// (and visible: debug-only ones count only while debugging); else null. A function value may come from
// outside the process, so it is only compared with the addresses of the chain's symbols and never used
// as a pointer unless it matched one. A symbol of another class is refused: its handler would take the
// object for an instance of that class.
ORVEX_API ScriptSymbol *FindFunctionValue(const ScriptInfo *info, uint64_t value);

// Links `info` to `parent` (the root for null) unless it is linked already.
ORVEX_API void _InitScriptInfo(ScriptInfo &info, ScriptInfo *parent);
// For a class's constructor: links the class on first use, then gives the object its record.
ORVEX_API void _SetScriptInfo(void *object, ScriptInfo &info);

// Calls the member `name` of `object` with `args`, as a script would. False if the class can't look
// up members or call functions, or `name` is not a function.
[[nodiscard]] ORVEX_API bool CallScriptFunc(ScriptObject *object, const char *name, ScriptArgs &args,
                                            TagList *tags = nullptr);

// For SST_GetCustomData: with a `name`, the value at that dotted path of `data` as one result (nil if
// the last key is missing, none if the path runs through a value that is no table); with null `name`,
// one table of all of `data`'s keys at 1..n. Nothing if `data` is no table.
ORVEX_API void ReturnCustomData(ScriptArgs &args, const char *name, const ScriptVal &data,
                                TagList *tags = nullptr);

} // namespace orvexScript
