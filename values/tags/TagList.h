// TagList: the typed attribute list. A flat run of 64-bit words, each attribute a tag word followed by
// its data; the tag's top nibble tells the data's type and width. A list either wraps a caller's array
// (owning nothing) or owns its array and every value in it. The byte form is in TagListStore.cpp,
// tag maps in TagMap.h.
// Sections: tag constants, the class (construction, walking, reads, writes, bulk, lock, byte form).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"
#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptObject.h"

namespace orvexScript
{

// ---- tag layout ---------------------------------------------------------------------------------
constexpr Tag TAG_TYPE_MASK = 0xF0000000u;
constexpr Tag TAG_REPEATABLE = 0x08000000u; // may stand several times; Set always appends
constexpr Tag TAG_NUMBER_MASK = 0x07FFFFFFu;

constexpr Tag TAG_CONTROL = 0x00000000u;  // 1 word: control data, see below
constexpr Tag TAG_INT = 0x10000000u;      // 1 word: 32-bit integer in the low half
constexpr Tag TAG_DOUBLE = 0x20000000u;   // 1 word: a double
constexpr Tag TAG_STRING = 0x30000000u;   // 1 word: char *, owned by an owning list, or null
constexpr Tag TAG_OBJECT = 0x40000000u;   // 1 word: RefObject *, one use held by an owning list
constexpr Tag TAG_TAGLIST = 0x50000000u;  // 1 word: TagList *, owned by an owning list, or null
constexpr Tag TAG_PTR = 0x60000000u;      // 1 word: a plain pointer, never owned
constexpr Tag TAG_MEMBLOCK = 0x70000000u; // 2 words: pointer (owned by an owning list) and size
constexpr Tag TAG_ID = 0x80000000u;       // 1 word: a KeID's pointer, counted by an owning list

// Control words (type nibble 0).
constexpr Tag TAG_DONE = 0;    // end of this run of tags
constexpr Tag TAG_IGNORE = 1;  // one data word, skipped
constexpr Tag TAG_SKIP = 2;    // data n: this tag and the n tags behind it are skipped
constexpr Tag TAG_MORE = 3;    // data: the next array to walk (this one ends here); null ends the walk
constexpr Tag TAG_REMOVED = 5; // a tag that no longer counts; one data word, skipped

inline constexpr Tag TagType(Tag tag)
{
    return tag & TAG_TYPE_MASK;
}

class ORVEX_API TagList : public RefObject
{
public:
    // Words of the stack array that gathers a variable argument list, the terminator included.
    static constexpr size_t MaxVarArgWords = 200;

    // ---- construction ---------------------------------------------------------------------------
    TagList();
    // Wraps `tags` without owning it (the array must outlive the list); `copy` makes it private at once.
    TagList(Tag *tags, bool copy);
    // From tag, value pairs ended by a 0 tag, into an owned array with 8 free words.
    TagList(Tag first, ...);
    TagList(const TagList &) = delete;
    TagList &operator=(const TagList &) = delete;
    ~TagList() override;

    [[nodiscard]] bool SetAttrsTagList(const TagList &tags) override;
    [[nodiscard]] bool CopyAttr(unsigned long long tag, void *out) const override;

    ORVEX_VFPAD_20(TagList)

    // The number of data words behind a tag of this type.
    static int Size(Tag tag);

    // Decodes tag, value pairs from `args` (the first tag given apart) into `buffer` of `capacity`
    // words, terminated; a list too long for the buffer is cut at a whole tag. Gives the words used.
    static size_t GatherVarArgs(Tag first, va_list args, Tag *buffer, size_t capacity);

    // ---- walking (no lock: valid against concurrent appends, not against Copy or Clear) ---------
    Tag *First() const { return Next(nullptr); }
    // The real tag behind `tag` (null: the first); null at the end.
    Tag *Next(Tag *tag) const;
    // The first tag word equal to `tag` (the whole word), or null.
    Tag *Find(Tag tag) const;
    // As Find, starting behind `after` (null: from the head).
    Tag *FindNext(Tag tag, Tag *after) const;
    bool IsEmpty() const { return m_Tags[0] == TAG_DONE; }
    // The array as it stands (the shared empty word, a wrapped array or the owned one).
    const Tag *GetTagArray() const { return m_Tags; }
    bool IsOwned() const { return m_Owned; }
    uint32_t GetFreeWords() const { return m_Free; }

    // ---- reads by tag (under the list's lock) ---------------------------------------------------
    bool FindQuery(Tag tag) const;
    // TAG_ID: a KeID assigned into `out`; TAG_INT: 32 bits; else the tag's data words.
    [[nodiscard]] bool Get(Tag tag, void *out) const;
    [[nodiscard]] bool Get(Tag tag, int &out) const;
    [[nodiscard]] bool Get(Tag tag, long &out) const;
    [[nodiscard]] bool Get(Tag tag, unsigned long &out) const;
    [[nodiscard]] bool Get(Tag tag, double &out) const;
    [[nodiscard]] bool Get(Tag tag, char *&out) const;
    [[nodiscard]] bool Get(Tag tag, RefObject *&out) const;
    [[nodiscard]] bool Get(Tag tag, MemBlock &out) const;
    [[nodiscard]] bool Get(Tag tag, bool &out) const;
    [[nodiscard]] bool Get(Tag tag, KeID &out) const;

    unsigned long GetLong(Tag tag, unsigned long def = 0) const;
    long GetInt(Tag tag, long def = 0) const;
    bool GetBool(Tag tag, bool def = false) const;
    double GetDouble(Tag tag, double def = 0.0) const;
    // The list's own copy (possibly null).
    const char *GetString(Tag tag, const char *def = nullptr) const;
    // As GetString, but never null: a stored null and a null default give "".
    const char *GetSafeString(Tag tag, const char *def = nullptr) const;
    KeID GetID(Tag tag, const KeID &def) const;
    // A view of the stored bytes, valid until the list changes the tag or is cleared.
    MemBlock GetMemBlock(Tag tag, MemBlock def = MemBlock()) const;
    // The nested list, still owned by this list.
    TagList *GetTagList(Tag tag, TagList *def = nullptr) const;
    void *GetPtr(Tag tag, void *def = nullptr) const;
    // The object with one more use, which the caller gives back (also for a non-null default).
    RefObject *GetObjectA(Tag tag, RefObject *def = nullptr) const;

    // ---- reads at a tag found earlier (no search, no lock) --------------------------------------
    unsigned long GetLong(const Tag *at) const;
    bool GetBool(const Tag *at) const;
    double GetDouble(const Tag *at) const;
    void *GetPtr(const Tag *at) const;
    const char *GetSafeString(const Tag *at) const;
    KeID GetID(const Tag *at) const;
    MemBlock GetMemBlock(const Tag *at) const;
    RefObject *GetObjectA(const Tag *at) const;

    // ---- writes ---------------------------------------------------------------------------------
    // The primitives. `data` is the value itself for TAG_STRING, TAG_OBJECT, TAG_TAGLIST and TAG_ID
    // (the KeID's pointer), a MemBlock * for TAG_MEMBLOCK, else the address of the data words.
    void AddData(Tag tag, const void *data);
    // Overwrites the first equal tag; when there is none (or the tag is repeatable) appends if `addNew`.
    void SetData(Tag tag, const void *data, bool addNew);
    // Replaces the value at a tag found earlier; null `where` is ignored.
    void SetData(Tag *where, const void *data);

    // Typed forms: the tag's type nibble decides how the given bits are stored; nothing is converted.
    void Add(Tag tag, int v) { AddValue(tag, FromInt(v)); }
    void Add(Tag tag, unsigned int v) { AddValue(tag, FromBits(v)); }
    void Add(Tag tag, long v) { AddValue(tag, FromInt(v)); }
    void Add(Tag tag, unsigned long v) { AddValue(tag, FromBits(v)); }
    void Add(Tag tag, double v) { AddValue(tag, FromDouble(v)); }
    void Add(Tag tag, const char *v) { AddValue(tag, FromPtr(v)); }
    void Add(Tag tag, const void *v) { AddValue(tag, FromPtr(v)); }
    void Add(Tag tag, const MemBlock &v) { AddValue(tag, FromBlock(v)); }
    void Add(Tag tag, bool v) { AddValue(tag, FromBits(v ? 1u : 0u)); }
    void Add(Tag tag, const KeID &v) { AddValue(tag, FromPtr(v.Raw())); }

    void Set(Tag tag, int v, bool addNew = true) { SetValue(tag, FromInt(v), addNew); }
    void Set(Tag tag, unsigned int v, bool addNew = true) { SetValue(tag, FromBits(v), addNew); }
    void Set(Tag tag, long v, bool addNew = true) { SetValue(tag, FromInt(v), addNew); }
    void Set(Tag tag, unsigned long v, bool addNew = true) { SetValue(tag, FromBits(v), addNew); }
    void Set(Tag tag, double v, bool addNew = true) { SetValue(tag, FromDouble(v), addNew); }
    void Set(Tag tag, const char *v, bool addNew = true) { SetValue(tag, FromPtr(v), addNew); }
    void Set(Tag tag, const void *v, bool addNew = true) { SetValue(tag, FromPtr(v), addNew); }
    void Set(Tag tag, const MemBlock &v, bool addNew = true) { SetValue(tag, FromBlock(v), addNew); }
    void Set(Tag tag, bool v, bool addNew = true) { SetValue(tag, FromBits(v ? 1u : 0u), addNew); }
    void Set(Tag tag, const KeID &v, bool addNew = true) { SetValue(tag, FromPtr(v.Raw()), addNew); }

    void Set(Tag *where, int v) { SetValueAt(where, FromInt(v)); }
    void Set(Tag *where, unsigned int v) { SetValueAt(where, FromBits(v)); }
    void Set(Tag *where, long v) { SetValueAt(where, FromInt(v)); }
    void Set(Tag *where, unsigned long v) { SetValueAt(where, FromBits(v)); }
    void Set(Tag *where, double v) { SetValueAt(where, FromDouble(v)); }
    void Set(Tag *where, const char *v) { SetValueAt(where, FromPtr(v)); }
    void Set(Tag *where, const void *v) { SetValueAt(where, FromPtr(v)); }
    void Set(Tag *where, const MemBlock &v) { SetValueAt(where, FromBlock(v)); }
    void Set(Tag *where, bool v) { SetValueAt(where, FromBits(v ? 1u : 0u)); }
    void Set(Tag *where, const KeID &v) { SetValueAt(where, FromPtr(v.Raw())); }

    // ---- bulk -----------------------------------------------------------------------------------
    // SetData of every real tag of `tags`, in order, under the source's lock. Null does nothing.
    void SetTags(const TagList *tags, bool addNew);
    // Rebuilds the list as an owned flat array with `extraWords` free words behind the terminator.
    void Copy(long extraWords);
    // Releases every value; an owned array stays allocated for reuse, a wrapped one is let go.
    void Clear();

    // The list's own recursive lock, for a caller that wants several operations as one.
    void ObtainLock() const;
    void ReleaseLock() const;

    // Holds a list's lock for a scope.
    class Hold
    {
    public:
        explicit Hold(const TagList &list) : m_List(list) { m_List.ObtainLock(); }
        ~Hold() { m_List.ReleaseLock(); }
        Hold(const Hold &) = delete;
        Hold &operator=(const Hold &) = delete;

    private:
        const TagList &m_List;
    };

    // ---- byte form (TagListStore.cpp) -----------------------------------------------------------
    // How deep lists may nest in the byte form: a list and at most this many levels below it.
    static constexpr int MaxNesting = 64;

    // Writes the byte form: T, the tag section, then the payloads (strings, identifiers, blocks,
    // nested lists) in tag order. TAG_OBJECT and TAG_PTR are left out; a TAG_MORE is followed, so a
    // wrapped chain saves as one flat list. With a null `buffer`, `size` receives the byte count.
    // Else `size` is the buffer's capacity on entry: too small gives false with the need in `size`
    // and nothing written; otherwise `size` receives the bytes written. False also for lists nested
    // deeper than MaxNesting (size 0).
    [[nodiscard]] bool Save(unsigned char *buffer, int &size) const;
    // Replaces this list by the list in `buffer`, releasing what it held. `size` on entry is the
    // number of readable bytes: nothing behind them is read. On success `size` receives the bytes
    // consumed (trailing bytes are allowed). False for a truncated or damaged form (a length past the
    // end, no terminator, a control word other than TAG_IGNORE, TAG_SKIP or TAG_REMOVED, a text that
    // starts with the block marker 0xFF or an identifier without its NUL, nesting deeper than
    // MaxNesting); the list is then empty and unowned, as a new TagList, with everything released
    // and `size` unchanged. Allocation stays within a small multiple of `size`.
    [[nodiscard]] bool Load(const unsigned char *buffer, int &size);

private:
    friend struct TagListStore; // the byte form's reader and writer
    // A typed value as the typed forms hand it to the primitives; see DataFor.
    struct TypedValue
    {
        uint64_t bits;
        const void *pointer;
        const MemBlock *block;
    };
    static TypedValue FromInt(long v)
    {
        return {static_cast<uint64_t>(v), reinterpret_cast<const void *>(v), nullptr};
    }
    static TypedValue FromBits(unsigned long v)
    {
        return {static_cast<uint64_t>(v), reinterpret_cast<const void *>(v), nullptr};
    }
    static TypedValue FromDouble(double v);
    static TypedValue FromPtr(const void *v) { return {reinterpret_cast<uint64_t>(v), v, nullptr}; }
    static TypedValue FromBlock(const MemBlock &v)
    {
        return {reinterpret_cast<uint64_t>(v.m_Ptr), v.m_Ptr, &v};
    }
    // The data pointer for `tag`: the value itself for the pointer types, else `scratch` (2 words).
    static const void *DataFor(Tag tag, const TypedValue &value, uint64_t *scratch);
    void AddValue(Tag tag, const TypedValue &value);
    void SetValue(Tag tag, const TypedValue &value, bool addNew);
    void SetValueAt(Tag *where, const TypedValue &value);

    // The first real tag at or after `pos`, following control words; null at the end.
    static Tag *Settle(Tag *pos);
    // Reads the data of the first `tag` under the lock; null when missing. `words` gets 2 data words.
    bool ReadWords(Tag tag, uint64_t *words) const;
    // Makes a wrapped array private, keeping `where` on the same tag; gives its new place.
    Tag *MakeOwned(Tag *where);
    bool InOwnArray(const Tag *at) const { return m_Owned && at >= m_Tags && at < m_End; }
    // Builds a value as an owning list holds it (copies, uses, counts) into `out`.
    static void BuildValue(Tag tag, const void *data, Tag *out);
    // Releases a value that an owning list holds; words 0 and 1 are no value.
    static void ReleaseValue(Tag tag, Tag *words);
    // Releases every value of the owned array, hidden ones included; the words stay in place.
    ORVEX_INTERNAL void ReleaseOwnedValues();
    // The data pointer that BuildValue takes for the value stored at `at` (`block` is scratch).
    static const void *StoredData(const Tag *at, MemBlock &block);

    mutable uint32_t m_LockDepth = 0;
    mutable uint32_t m_LockWord = 0;
    bool m_Owned = false;
    Tag *m_Tags;
    Tag *m_End = nullptr;
    uint32_t m_Free = 0;

    static Tag s_EmptyWord[1];
};

} // namespace orvexScript
