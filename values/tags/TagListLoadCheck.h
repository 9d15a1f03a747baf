// The checks that the TagList loader's fuzz target and its corpus test share: Load never claims more
// bytes than it was given, a failed Load leaves an empty unowned list, and whatever loads saves to a
// form that loads again, whole, and saves to the same bytes. Header only: it is no part of the library.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "values/tags/TagList.h"

namespace orvexScript
{

struct TagListLoadCheck
{
    bool loaded = false; // the input was a form that Load accepted
    std::string failure; // the broken invariant, empty if all held
};

// The saved form of `list`, or empty with `failure` set.
inline std::vector<unsigned char> SavedForm(const TagList &list, std::string &failure)
{
    int need = 0;
    if (!list.Save(nullptr, need) || need < 8)
    {
        failure = "a loaded list does not save";
        return {};
    }
    std::vector<unsigned char> form(size_t(need) + 1, 0xAB);
    int capacity = need - 1;
    if (list.Save(form.data(), capacity) || capacity != need || form[0] != 0xAB)
        failure = "Save into a buffer one byte short did not refuse cleanly";
    int written = need;
    if (!list.Save(form.data(), written) || written != need || form[size_t(need)] != 0xAB)
        failure = "Save wrote other than the size it reported";
    form.resize(size_t(need));
    return form;
}

inline TagListLoadCheck CheckTagListLoad(const uint8_t *data, size_t size)
{
    TagListLoadCheck result;
    // An exact copy, so that a sanitizer sees any read past the end.
    std::vector<unsigned char> input(data, data + size);
    const int given = size > size_t(INT_MAX) ? INT_MAX : int(size);
    int consumed = given;
    TagList list;
    if (!list.Load(input.data(), consumed))
    {
        if (!list.IsEmpty() || list.IsOwned() || consumed != given)
            result.failure = "a failed Load left the list or the size changed";
        return result;
    }
    result.loaded = true;
    if (consumed < 8 || consumed > given)
    {
        result.failure = "Load consumed " + std::to_string(consumed) + " of " + std::to_string(given);
        return result;
    }
    const std::vector<unsigned char> first = SavedForm(list, result.failure);
    if (!result.failure.empty()) return result;
    TagList again;
    int reread = int(first.size());
    if (!again.Load(first.data(), reread) || reread != int(first.size()))
    {
        result.failure = "a saved form did not load back whole";
        return result;
    }
    if (SavedForm(again, result.failure) != first && result.failure.empty())
        result.failure = "a saved form loaded and saved again changed";
    return result;
}

} // namespace orvexScript
