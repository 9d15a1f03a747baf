// TagList reads: by tag under the list's lock, and at a tag found earlier without a search.
// There is no conversion between types: each read takes the data words as its out type.

#include <cstring>
#include <new>

#include "values/tags/TagList.h"

namespace orvexScript
{

namespace
{
double BitsToDouble(uint64_t bits)
{
    double d;
    std::memcpy(&d, &bits, sizeof(d));
    return d;
}

MemBlock WordsToBlock(const uint64_t *words)
{
    return MemBlock(reinterpret_cast<void *>(words[0]), static_cast<unsigned long>(words[1] & 0xFFFFFFFFu));
}

const KeID &WordsAsID(const Tag *words)
{
    return *std::launder(reinterpret_cast<const KeID *>(words));
}
} // namespace

bool TagList::ReadWords(Tag tag, uint64_t *words) const
{
    ObtainLock();
    const Tag *at = Find(tag);
    if (at)
    {
        words[0] = at[1];
        words[1] = Size(tag) > 1 ? at[2] : 0;
    }
    ReleaseLock();
    return at != nullptr;
}

bool TagList::FindQuery(Tag tag) const
{
    ObtainLock();
    const bool found = Find(tag) != nullptr;
    ReleaseLock();
    return found;
}

bool TagList::Get(Tag tag, void *out) const
{
    ObtainLock();
    const Tag *at = Find(tag);
    if (at)
    {
        if (TagType(tag) == TAG_ID)
            *static_cast<KeID *>(out) = WordsAsID(at + 1);
        else if (TagType(tag) == TAG_INT)
            std::memcpy(out, at + 1, sizeof(uint32_t));
        else
            std::memcpy(out, at + 1, sizeof(Tag) * Size(tag));
    }
    ReleaseLock();
    return at != nullptr;
}

bool TagList::Get(Tag tag, int &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = static_cast<int32_t>(words[0]);
    return true;
}

bool TagList::Get(Tag tag, long &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = static_cast<int32_t>(words[0]);
    return true;
}

bool TagList::Get(Tag tag, unsigned long &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = static_cast<uint32_t>(words[0]);
    return true;
}

bool TagList::Get(Tag tag, double &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = BitsToDouble(words[0]);
    return true;
}

bool TagList::Get(Tag tag, char *&out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = reinterpret_cast<char *>(words[0]);
    return true;
}

bool TagList::Get(Tag tag, RefObject *&out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = reinterpret_cast<RefObject *>(words[0]);
    return true;
}

bool TagList::Get(Tag tag, MemBlock &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = WordsToBlock(words);
    return true;
}

bool TagList::Get(Tag tag, bool &out) const
{
    uint64_t words[2];
    if (!ReadWords(tag, words)) return false;
    out = words[0] != 0;
    return true;
}

bool TagList::Get(Tag tag, KeID &out) const
{
    if (TagType(tag) != TAG_ID)
        return false; // any other word is no identifier: copying it into `out` would break its count
    return Get(tag, static_cast<void *>(&out));
}

unsigned long TagList::GetLong(Tag tag, unsigned long def) const
{
    (void)Get(tag, def); // a missing tag leaves the default
    return def;
}

long TagList::GetInt(Tag tag, long def) const
{
    (void)Get(tag, def); // a missing tag leaves the default
    return def;
}

bool TagList::GetBool(Tag tag, bool def) const
{
    (void)Get(tag, def); // a missing tag leaves the default
    return def;
}

double TagList::GetDouble(Tag tag, double def) const
{
    (void)Get(tag, def); // a missing tag leaves the default
    return def;
}

const char *TagList::GetString(Tag tag, const char *def) const
{
    char *text;
    return Get(tag, text) ? text : def;
}

const char *TagList::GetSafeString(Tag tag, const char *def) const
{
    const char *text = GetString(tag, def);
    return text ? text : "";
}

KeID TagList::GetID(Tag tag, const KeID &def) const
{
    KeID id(def);
    if (TagType(tag) == TAG_ID) (void)Get(tag, id); // a missing tag leaves the default
    return id;
}

MemBlock TagList::GetMemBlock(Tag tag, MemBlock def) const
{
    (void)Get(tag, def); // a missing tag leaves the default
    return def;
}

TagList *TagList::GetTagList(Tag tag, TagList *def) const
{
    uint64_t words[2];
    return ReadWords(tag, words) ? reinterpret_cast<TagList *>(words[0]) : def;
}

void *TagList::GetPtr(Tag tag, void *def) const
{
    uint64_t words[2];
    return ReadWords(tag, words) ? reinterpret_cast<void *>(words[0]) : def;
}

RefObject *TagList::GetObjectA(Tag tag, RefObject *def) const
{
    ObtainLock();
    const Tag *at = Find(tag);
    RefObject *object = at ? reinterpret_cast<RefObject *>(at[1]) : def;
    SafeUse(object); // under the lock, so a concurrent replacement can't recycle it first
    ReleaseLock();
    return object;
}

unsigned long TagList::GetLong(const Tag *at) const
{
    return at ? static_cast<uint32_t>(at[1]) : 0;
}

bool TagList::GetBool(const Tag *at) const
{
    return at && at[1] != 0;
}

double TagList::GetDouble(const Tag *at) const
{
    return at ? BitsToDouble(at[1]) : 0.0;
}

void *TagList::GetPtr(const Tag *at) const
{
    return at ? reinterpret_cast<void *>(at[1]) : nullptr;
}

const char *TagList::GetSafeString(const Tag *at) const
{
    const char *text = at ? reinterpret_cast<const char *>(at[1]) : nullptr;
    return text ? text : "";
}

KeID TagList::GetID(const Tag *at) const
{
    if (!at || TagType(*at) != TAG_ID) return KeID();
    return WordsAsID(at + 1);
}

MemBlock TagList::GetMemBlock(const Tag *at) const
{
    if (!at) return MemBlock();
    const uint64_t words[2] = {at[1], Size(*at) > 1 ? at[2] : 0};
    return WordsToBlock(words);
}

RefObject *TagList::GetObjectA(const Tag *at) const
{
    RefObject *object = at ? reinterpret_cast<RefObject *>(at[1]) : nullptr;
    SafeUse(object);
    return object;
}

} // namespace orvexScript
