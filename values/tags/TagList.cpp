// TagList: construction, the walk, writes, bulk operations and the lock. Reads are in TagListRead.cpp.
// Ownership: an owned array holds private copies of strings, lists and blocks, a use of each object and
// a count of each identifier; a wrapped array holds nothing, and is never written.

#include "values/tags/TagList.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "values/sync/Lock.h"

namespace orvexScript
{

Tag TagList::s_EmptyWord[1] = {TAG_DONE};

namespace
{
bool IsPointerType(Tag type)
{
    return type == TAG_STRING || type == TAG_OBJECT || type == TAG_TAGLIST || type == TAG_ID;
}
} // namespace

// ---- construction ---------------------------------------------------------------------------------

TagList::TagList() : m_Tags(s_EmptyWord) {}

TagList::TagList(Tag *tags, bool copy) : m_Tags(tags ? tags : s_EmptyWord)
{
    if (copy) Copy(0);
}

TagList::TagList(Tag first, ...) : m_Tags(s_EmptyWord)
{
    Tag buffer[MaxVarArgWords];
    va_list args;
    va_start(args, first);
    GatherVarArgs(first, args, buffer, MaxVarArgWords);
    va_end(args);
    m_Tags = buffer;
    Copy(8); // the wrapped stack array becomes an owned copy before it goes
}

TagList::~TagList()
{
    Clear();
    if (m_Owned) std::free(m_Tags);
}

bool TagList::SetAttrsTagList(const TagList &tags)
{
    SetTags(&tags, true);
    return true;
}

bool TagList::CopyAttr(unsigned long long tag, void *out) const
{
    return Get(static_cast<Tag>(tag), out);
}

int TagList::Size(Tag tag)
{
    switch (TagType(tag))
    {
    case TAG_MEMBLOCK:
        return 2;
    case TAG_CONTROL:
    case TAG_INT:
    case TAG_DOUBLE:
    case TAG_STRING:
    case TAG_OBJECT:
    case TAG_TAGLIST:
    case TAG_PTR:
    case TAG_ID:
        return 1;
    default:
        return 0;
    }
}

size_t TagList::GatherVarArgs(Tag first, va_list args, Tag *buffer, size_t capacity)
{
    size_t used = 0;
    for (Tag tag = first; tag != TAG_DONE; tag = va_arg(args, unsigned int))
    {
        const int size = Size(tag);
        if (used + 1 + size + 1 > capacity) break; // keep room for the terminator
        Tag *out = buffer + used;
        out[0] = tag;
        switch (TagType(tag))
        {
        case TAG_CONTROL:
            if (tag == TAG_MORE || tag == TAG_REMOVED)
                out[1] = reinterpret_cast<Tag>(va_arg(args, void *));
            else if (tag == TAG_IGNORE || tag == TAG_SKIP)
                out[1] = static_cast<Tag>(static_cast<intptr_t>(va_arg(args, int)));
            else
                out[1] = 0;
            break;
        case TAG_INT:
            out[1] = static_cast<Tag>(static_cast<intptr_t>(va_arg(args, int)));
            break;
        case TAG_DOUBLE:
        {
            double d = va_arg(args, double);
            std::memcpy(&out[1], &d, sizeof(d));
            break;
        }
        case TAG_MEMBLOCK:
            out[1] = reinterpret_cast<Tag>(va_arg(args, void *));
            out[2] = va_arg(args, unsigned int);
            break;
        default:
            if (size == 1) out[1] = reinterpret_cast<Tag>(va_arg(args, void *));
            break;
        }
        used += 1 + size;
    }
    buffer[used] = TAG_DONE;
    return used + 1;
}

// ---- walking --------------------------------------------------------------------------------------

Tag *TagList::Settle(Tag *pos)
{
    while (pos)
    {
        const Tag word = *pos;
        if (TagType(word) != TAG_CONTROL) return pos;
        switch (word)
        {
        case TAG_IGNORE:
        case TAG_REMOVED:
            pos += 2;
            break;
        case TAG_MORE:
            pos = reinterpret_cast<Tag *>(pos[1]);
            break;
        case TAG_SKIP:
        {
            const int32_t count = static_cast<int32_t>(pos[1]);
            if (count < 0) return nullptr; // would stall: stop the walk instead
            pos += 2;
            for (int32_t i = 0; i < count; ++i)
            {
                if (*pos == TAG_DONE) return nullptr;
                pos += 1 + Size(*pos);
            }
            break;
        }
        default:
            return nullptr; // TAG_DONE, or a control word that no list should hold
        }
    }
    return nullptr;
}

Tag *TagList::Next(Tag *tag) const
{
    if (!tag) return Settle(m_Tags);
    return Settle(tag + 1 + Size(*tag));
}

Tag *TagList::Find(Tag tag) const
{
    return FindNext(tag, nullptr);
}

Tag *TagList::FindNext(Tag tag, Tag *after) const
{
    for (Tag *at = Next(after); at; at = Next(at))
        if (*at == tag) return at;
    return nullptr;
}

// ---- writes ---------------------------------------------------------------------------------------

void TagList::BuildValue(Tag tag, const void *data, Tag *out)
{
    switch (TagType(tag))
    {
    case TAG_STRING:
        out[0] = data ? reinterpret_cast<Tag>(strdup(static_cast<const char *>(data))) : 0;
        break;
    case TAG_TAGLIST:
    {
        TagList *copy = nullptr;
        if (data)
        {
            copy = new TagList();
            copy->SetTags(static_cast<const TagList *>(data), true);
        }
        out[0] = reinterpret_cast<Tag>(copy);
        break;
    }
    case TAG_OBJECT:
        SafeUse(static_cast<const RefObject *>(data));
        out[0] = reinterpret_cast<Tag>(data);
        break;
    case TAG_MEMBLOCK:
    {
        const MemBlock *block = static_cast<const MemBlock *>(data);
        out[0] = out[1] = 0;
        if (block && block->m_Ptr)
        {
            void *bytes = std::malloc(block->m_Size ? block->m_Size : 1);
            std::memcpy(bytes, block->m_Ptr, block->m_Size);
            out[0] = reinterpret_cast<Tag>(bytes);
            out[1] = block->m_Size;
        }
        break;
    }
    case TAG_ID:
        out[0] = 0;
        new (out) KeID(static_cast<const char *>(data));
        break;
    default:
        if (data)
            std::memcpy(out, data, sizeof(Tag) * Size(tag));
        else
            std::memset(out, 0, sizeof(Tag) * Size(tag));
        break;
    }
}

void TagList::ReleaseValue(Tag tag, Tag *words)
{
    if (words[0] == 0 || words[0] == 1) return; // no value, or the marker of a partly loaded list
    switch (TagType(tag))
    {
    case TAG_STRING:
    case TAG_MEMBLOCK:
        std::free(reinterpret_cast<void *>(words[0]));
        break;
    case TAG_TAGLIST:
        delete reinterpret_cast<TagList *>(words[0]);
        break;
    case TAG_OBJECT:
        reinterpret_cast<RefObject *>(words[0])->Recycle();
        break;
    case TAG_ID:
        std::launder(reinterpret_cast<KeID *>(words))->~KeID();
        break;
    default:
        return;
    }
    words[0] = 0;
}

const void *TagList::StoredData(const Tag *at, MemBlock &block)
{
    switch (TagType(*at))
    {
    case TAG_STRING:
    case TAG_OBJECT:
    case TAG_TAGLIST:
    case TAG_ID:
        return reinterpret_cast<const void *>(at[1]);
    case TAG_MEMBLOCK:
        block = MemBlock(reinterpret_cast<void *>(at[1]), static_cast<unsigned long>(at[2]));
        return &block;
    default:
        return at + 1;
    }
}

void TagList::AddData(Tag tag, const void *data)
{
    if (tag == TAG_DONE) return; // it would end the list here
    Hold lock(*this);
    const int size = Size(tag);
    if (m_Free < static_cast<uint32_t>(size + 1)) Copy(8);
    m_Free -= size + 1;
    Tag *at = m_End;
    BuildValue(tag, data, at + 1);
    at[1 + size] = TAG_DONE;
    m_End = at + 1 + size;
    // The tag word goes in last, so a reader without the lock sees either nothing new or all of it.
    std::atomic_ref<Tag>(*at).store(tag, std::memory_order_release);
}

void TagList::SetData(Tag tag, const void *data, bool addNew)
{
    Hold lock(*this);
    if (tag & TAG_REPEATABLE)
    {
        if (addNew) AddData(tag, data);
        return;
    }
    if (Tag *at = Find(tag))
        SetData(at, data);
    else if (addNew)
        AddData(tag, data);
}

void TagList::SetData(Tag *where, const void *data)
{
    if (!where) return;
    Hold lock(*this);
    if (!InOwnArray(where)) where = MakeOwned(where);
    if (!where) return;
    const Tag type = TagType(*where);
    if (type == TAG_INT || type == TAG_DOUBLE || type == TAG_PTR || type == TAG_CONTROL)
    {
        where[1] = data ? *static_cast<const Tag *>(data) : 0;
        return;
    }
    const int size = Size(*where);
    Tag fresh[2] = {0, 0};
    Tag old[2] = {0, 0};
    BuildValue(*where, data, fresh);
    std::memcpy(old, where + 1, sizeof(Tag) * size);
    std::memcpy(where + 1, fresh, sizeof(Tag) * size);
    ReleaseValue(*where, old);
}

Tag *TagList::MakeOwned(Tag *where)
{
    size_t ordinal = 0;
    Tag *at = First();
    for (; at && at != where; at = Next(at))
        ++ordinal;
    if (!at) return nullptr; // not a tag of this list
    Copy(8);
    at = First();
    for (; at && ordinal > 0; --ordinal)
        at = Next(at);
    return at;
}

const void *TagList::DataFor(Tag tag, const TypedValue &value, uint64_t *scratch)
{
    const Tag type = TagType(tag);
    if (IsPointerType(type)) return value.pointer;
    if (type == TAG_MEMBLOCK && value.block) return value.block;
    scratch[0] = value.bits;
    scratch[1] = 0;
    if (type == TAG_MEMBLOCK)
    {
        // A non-block value for a block tag: the bits are the pointer, with no size.
        static_assert(sizeof(MemBlock) <= 2 * sizeof(uint64_t));
        MemBlock block(reinterpret_cast<void *>(value.bits), 0);
        std::memcpy(scratch, &block, sizeof(block));
    }
    return scratch;
}

TagList::TypedValue TagList::FromDouble(double v)
{
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof(bits));
    return {bits, reinterpret_cast<const void *>(bits), nullptr};
}

void TagList::AddValue(Tag tag, const TypedValue &value)
{
    uint64_t scratch[2];
    AddData(tag, DataFor(tag, value, scratch));
}

void TagList::SetValue(Tag tag, const TypedValue &value, bool addNew)
{
    uint64_t scratch[2];
    SetData(tag, DataFor(tag, value, scratch), addNew);
}

void TagList::SetValueAt(Tag *where, const TypedValue &value)
{
    if (!where) return;
    uint64_t scratch[2];
    SetData(where, DataFor(*where, value, scratch));
}

// ---- bulk -----------------------------------------------------------------------------------------

void TagList::SetTags(const TagList *tags, bool addNew)
{
    if (!tags || tags == this) return; // a list set onto itself would only repeat its repeatable tags
    Hold source(*tags);
    MemBlock block;
    for (Tag *at = tags->First(); at; at = tags->Next(at))
        SetData(*at, StoredData(at, block), addNew);
}

void TagList::Copy(long extraWords)
{
    Hold lock(*this);
    if (extraWords < 0) extraWords = 0;
    size_t count = 0;
    for (Tag *at = First(); at; at = Next(at))
        count += 1 + Size(*at);

    Tag *fresh = static_cast<Tag *>(std::malloc(sizeof(Tag) * (count + extraWords + 1)));
    Tag *out = fresh;
    MemBlock block;
    for (Tag *at = First(); at; at = Next(at))
    {
        const int size = Size(*at);
        out[0] = *at;
        if (InOwnArray(at))
        {
            std::memcpy(out + 1, at + 1, sizeof(Tag) * size); // the value moves
            at[1] = 0;                                        // and the old place holds none
        }
        else
        {
            BuildValue(*at, StoredData(at, block), out + 1);
        }
        out += 1 + size;
    }
    *out = TAG_DONE;
    if (m_Owned)
    {
        ReleaseOwnedValues(); // what the walk did not reach: values behind a TAG_SKIP
        std::free(m_Tags);
    }
    m_Tags = fresh;
    m_End = out;
    m_Owned = true;
    m_Free = static_cast<uint32_t>(extraWords);
}

void TagList::ReleaseOwnedValues()
{
    // Word by word, not by the walk: a value that a TAG_SKIP hides from the walk is released too.
    for (Tag *at = m_Tags; at < m_End; at += 1 + Size(*at))
        if (TagType(*at) != TAG_CONTROL) ReleaseValue(*at, at + 1);
}

void TagList::Clear()
{
    Hold lock(*this);
    if (!m_Owned)
    {
        m_Tags = s_EmptyWord;
        m_End = nullptr;
        m_Free = 0;
        return;
    }
    ReleaseOwnedValues();
    m_Free += static_cast<uint32_t>(m_End - m_Tags);
    m_End = m_Tags;
    m_Tags[0] = TAG_DONE;
}

// ---- lock -----------------------------------------------------------------------------------------

void TagList::ObtainLock() const
{
    SpinWords::Obtain(m_LockWord, m_LockDepth);
}

void TagList::ReleaseLock() const
{
    SpinWords::Release(m_LockWord, m_LockDepth);
}

} // namespace orvexScript
