// TagList byte form: Save writes T, the tag section and the payloads; Load reads them back. Load takes
// bytes from anywhere (files, hosts), so it checks every length against the bytes it was given, bounds
// the nesting and allocates only what the input can account for.
// Sections: byte helpers, measuring, writing, the section reader, payloads, the public entry points.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "values/base/StringBlock.h"
#include "values/tags/TagList.h"

namespace orvexScript
{

namespace
{
// ---- byte helpers: the form is little-endian and unaligned --------------------------------------

uint32_t Get32(const unsigned char *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Writes into a fixed span and never past its end; a write that doesn't fit clears `ok`.
struct Writer
{
    unsigned char *pos;
    unsigned char *end;
    bool ok = true;

    void Put32(uint32_t v)
    {
        const unsigned char bytes[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
        PutBytes(bytes, 4);
    }
    void PutBytes(const void *bytes, size_t n)
    {
        if (!ok || size_t(end - pos) < n)
        {
            ok = false;
            return;
        }
        if (n) std::memcpy(pos, bytes, n);
        pos += n;
    }
};

bool HasPayloadType(Tag type)
{
    return type == TAG_STRING || type == TAG_TAGLIST || type == TAG_ID || type == TAG_MEMBLOCK;
}

// Bytes of a tag's record in the section: a double takes three units, an object or a plain pointer
// none (they mean nothing outside the process), everything else two.
size_t SavedRecordBytes(Tag tag)
{
    const Tag type = TagType(tag);
    if (type == TAG_DOUBLE) return 12;
    if (type == TAG_OBJECT || type == TAG_PTR) return 0;
    return 8;
}

// The stored walk that Save takes: every tag word in storage order, control words included, so
// that the section mirrors the array; TAG_MORE is followed instead of recorded. Null at the end.
const Tag *Stored(const Tag *pos)
{
    while (pos && *pos == TAG_MORE)
        pos = reinterpret_cast<const Tag *>(pos[1]);
    return pos && *pos != TAG_DONE ? pos : nullptr;
}

const Tag *NextStored(const Tag *at)
{
    return Stored(at + 1 + TagList::Size(*at));
}

const char *IDText(const Tag *at)
{
    return std::launder(reinterpret_cast<const KeID *>(at + 1))->Text();
}
} // namespace

struct TagListStore
{
    static bool Measure(const TagList &list, int depth, uint64_t &total);
    static void Write(const TagList &list, Writer &out);
    static void WritePayload(const Tag *at, Writer &out);
    static bool LoadForm(TagList &list, const unsigned char *base, size_t avail, size_t &used, int depth);
    static bool CountWords(const unsigned char *section, size_t bytes, size_t &words);
    static void Unpack(const unsigned char *section, Tag *out);
    static bool LoadPayload(Tag *at, const unsigned char *base, size_t avail, size_t &pos, int depth);
    static void Reset(TagList &list);
};

// ---- measuring ------------------------------------------------------------------------------------

// Bytes of the whole form of `list` at `depth`; false if a nested list lies deeper than allowed.
bool TagListStore::Measure(const TagList &list, int depth, uint64_t &total)
{
    if (depth > TagList::MaxNesting) return false;
    TagList::Hold lock(list);
    uint64_t section = 4; // the terminating zero word
    uint64_t payloads = 0;
    for (const Tag *at = Stored(list.m_Tags); at; at = NextStored(at))
    {
        section += SavedRecordBytes(*at);
        const Tag type = TagType(*at);
        if (!HasPayloadType(type) || at[1] == 0) continue;
        if (type == TAG_STRING)
            payloads += 4 + std::strlen(reinterpret_cast<const char *>(at[1]));
        else if (type == TAG_ID)
            payloads += 4 + std::strlen(IDText(at)) + 1;
        else if (type == TAG_MEMBLOCK)
            payloads += 4 + static_cast<uint32_t>(at[2]);
        else
        {
            uint64_t nested = 0;
            if (!Measure(*reinterpret_cast<const TagList *>(at[1]), depth + 1, nested)) return false;
            payloads += nested;
        }
    }
    total = 4 + section + payloads;
    return true;
}

// ---- writing --------------------------------------------------------------------------------------

void TagListStore::Write(const TagList &list, Writer &out)
{
    TagList::Hold lock(list);
    uint32_t section = 4;
    for (const Tag *at = Stored(list.m_Tags); at; at = NextStored(at))
        section += static_cast<uint32_t>(SavedRecordBytes(*at));
    out.Put32(section);
    for (const Tag *at = Stored(list.m_Tags); at; at = NextStored(at))
    {
        const Tag type = TagType(*at);
        if (type == TAG_OBJECT || type == TAG_PTR) continue;
        out.Put32(static_cast<uint32_t>(*at)); // only the low half of a tag is kept
        if (type == TAG_DOUBLE)
        {
            out.Put32(static_cast<uint32_t>(at[1]));
            out.Put32(static_cast<uint32_t>(at[1] >> 32));
        }
        else if (HasPayloadType(type))
            out.Put32(at[1] ? 1 : 0); // a fixed mark, so equal lists save to equal bytes
        else
            out.Put32(static_cast<uint32_t>(at[1])); // types above TAG_ID: the word behind, ignored by Load
    }
    out.Put32(TAG_DONE);
    for (const Tag *at = Stored(list.m_Tags); at; at = NextStored(at))
        if (HasPayloadType(TagType(*at)) && at[1]) WritePayload(at, out);
}

void TagListStore::WritePayload(const Tag *at, Writer &out)
{
    switch (TagType(*at))
    {
    case TAG_STRING:
    {
        const char *text = reinterpret_cast<const char *>(at[1]);
        const size_t len = std::strlen(text);
        out.Put32(static_cast<uint32_t>(len));
        out.PutBytes(text, len);
        break;
    }
    case TAG_ID:
    {
        const char *text = IDText(at);
        const size_t len = std::strlen(text) + 1; // the NUL goes with it
        out.Put32(static_cast<uint32_t>(len));
        out.PutBytes(text, len);
        break;
    }
    case TAG_MEMBLOCK:
    {
        const uint32_t len = static_cast<uint32_t>(at[2]);
        out.Put32(len);
        out.PutBytes(reinterpret_cast<const void *>(at[1]), len);
        break;
    }
    default:
        Write(*reinterpret_cast<const TagList *>(at[1]), out);
        break;
    }
}

// ---- the section reader ---------------------------------------------------------------------------

// Checks the tag section (`bytes` long, which must hold its terminator) and counts the words its
// tags take in memory.
bool TagListStore::CountWords(const unsigned char *section, size_t bytes, size_t &words)
{
    words = 0;
    for (size_t off = 0;;)
    {
        if (bytes - off < 4) return false; // no terminator inside T
        const Tag tag = Get32(section + off);
        if (tag == TAG_DONE) return true;
        const Tag type = TagType(tag);
        const size_t record = type == TAG_DOUBLE ? 12 : 8;
        if (bytes - off < record) return false;
        if (type == TAG_CONTROL && tag != TAG_IGNORE && tag != TAG_SKIP && tag != TAG_REMOVED)
            return false; // TAG_MORE would point nowhere, other control words would stop every walk
        if (type != TAG_OBJECT && type != TAG_PTR) words += 1 + TagList::Size(tag);
        off += record;
    }
}

// Widens a section that CountWords accepted into `out`, terminated. A tag with a payload gets the
// marker 1 in place of its value when one follows, 0 when none does.
void TagListStore::Unpack(const unsigned char *section, Tag *out)
{
    for (const unsigned char *in = section;;)
    {
        const Tag tag = Get32(in);
        if (tag == TAG_DONE) break;
        const Tag type = TagType(tag);
        const Tag data = Get32(in + 4);
        in += type == TAG_DOUBLE ? 12 : 8;
        if (type == TAG_OBJECT || type == TAG_PTR) continue; // dropped with their word
        *out++ = tag;
        if (type == TAG_DOUBLE)
            *out++ = data | Tag(Get32(in - 4)) << 32;
        else if (HasPayloadType(type))
            *out++ = data ? 1 : 0;
        else if (type == TAG_INT || type == TAG_CONTROL)
            *out++ = data;
        if (type == TAG_MEMBLOCK) *out++ = 0;
    }
    *out = TAG_DONE;
}

// ---- payloads -------------------------------------------------------------------------------------

namespace
{
// Takes a 32-bit length and that many bytes at `pos`; false if they don't all lie before `avail`.
bool TakeBytes(const unsigned char *base, size_t avail, size_t &pos, const unsigned char *&bytes,
               uint32_t &len)
{
    if (avail - pos < 4) return false;
    len = Get32(base + pos);
    if (avail - pos - 4 < len) return false;
    bytes = base + pos + 4;
    pos += 4 + size_t(len);
    return true;
}

// A text pointer whose first byte is the marker is taken for a shared block everywhere, so a
// loaded text may not start with it.
bool StartsWithMarker(const unsigned char *bytes, uint32_t len)
{
    return len > 0 && bytes[0] == kStringBlockMarker;
}
} // namespace

// Fills the marked tag at `at` from the payload at `pos`, moving `pos` behind it.
bool TagListStore::LoadPayload(Tag *at, const unsigned char *base, size_t avail, size_t &pos, int depth)
{
    const Tag type = TagType(*at);
    if (type == TAG_TAGLIST)
    {
        TagList *nested = new (std::nothrow) TagList();
        size_t used = 0;
        if (!nested) return false;
        if (!LoadForm(*nested, base + pos, avail - pos, used, depth + 1))
        {
            delete nested;
            return false;
        }
        at[1] = reinterpret_cast<Tag>(nested);
        pos += used;
        return true;
    }
    const unsigned char *bytes = nullptr;
    uint32_t len = 0;
    if (!TakeBytes(base, avail, pos, bytes, len)) return false;
    if (type == TAG_MEMBLOCK)
    {
        void *copy = len ? std::malloc(len) : nullptr; // an empty block loads as no block
        if (len && !copy) return false;
        if (len) std::memcpy(copy, bytes, len);
        at[1] = reinterpret_cast<Tag>(copy);
        at[2] = len;
        return true;
    }
    if (StartsWithMarker(bytes, len)) return false;
    if (type == TAG_ID)
    {
        if (len == 0 || bytes[len - 1] != 0) return false; // the length counts the NUL
        at[1] = 0;
        new (at + 1) KeID(reinterpret_cast<const char *>(bytes), size_t(len - 1));
        return at[1] != 0;
    }
    char *text = static_cast<char *>(std::malloc(size_t(len) + 1));
    if (!text) return false;
    std::memcpy(text, bytes, len);
    text[len] = '\0';
    at[1] = reinterpret_cast<Tag>(text);
    return true;
}

// Loads one complete form from `avail` bytes at `base` into `list`, which is empty and unowned on
// entry. On failure the list is reset to that state with everything it had taken released.
bool TagListStore::LoadForm(TagList &list, const unsigned char *base, size_t avail, size_t &used, int depth)
{
    if (depth > TagList::MaxNesting || avail < 4) return false;
    const uint32_t sectionBytes = Get32(base);
    if (sectionBytes > avail - 4) return false;
    size_t words = 0;
    if (!CountWords(base + 4, sectionBytes, words)) return false;
    Tag *array = static_cast<Tag *>(std::malloc(sizeof(Tag) * (words + 1)));
    if (!array) return false;
    Unpack(base + 4, array);
    list.m_Tags = array;
    list.m_End = array + words;
    list.m_Owned = true;
    list.m_Free = 0;

    size_t pos = 4 + size_t(sectionBytes);
    for (Tag *at = array; *at != TAG_DONE; at += 1 + TagList::Size(*at))
    {
        if (!HasPayloadType(TagType(*at)) || at[1] == 0) continue;
        if (!LoadPayload(at, base, avail, pos, depth))
        {
            Reset(list); // markers left in unfilled tags are no values to Clear
            return false;
        }
    }
    used = pos;
    return true;
}

// Releases every value and the array, and makes the list the empty, unowned list.
void TagListStore::Reset(TagList &list)
{
    list.Clear();
    if (list.m_Owned) std::free(list.m_Tags);
    list.m_Tags = TagList::s_EmptyWord;
    list.m_End = nullptr;
    list.m_Owned = false;
    list.m_Free = 0;
}

// ---- entry points ---------------------------------------------------------------------------------

bool TagList::Save(unsigned char *buffer, int &size) const
{
    TagList::Hold lock(*this);
    uint64_t total = 0;
    if (!TagListStore::Measure(*this, 0, total) || total > uint64_t(INT_MAX))
    {
        size = 0;
        return false;
    }
    if (!buffer)
    {
        size = static_cast<int>(total);
        return true;
    }
    if (size < 0 || uint64_t(size) < total)
    {
        size = static_cast<int>(total);
        return false;
    }
    Writer out{buffer, buffer + total};
    TagListStore::Write(*this, out);
    size = static_cast<int>(out.pos - buffer);
    return out.ok;
}

bool TagList::Load(const unsigned char *buffer, int &size)
{
    TagList::Hold lock(*this);
    TagListStore::Reset(*this);
    if (!buffer || size < 0) return false;
    size_t used = 0;
    if (!TagListStore::LoadForm(*this, buffer, size_t(size), used, 0)) return false;
    size = static_cast<int>(used);
    return true;
}

} // namespace orvexScript
