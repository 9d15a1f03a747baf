// Tests of UUID creation: the text form, the version and variant bits, uniqueness, and assignment to
// values by the ordinary rules.
#include "values/model/UUID.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "values/model/ScriptVal.h"

using namespace orvexScript;

TEST(UUID, TextIsUniqueLowerCaseVersionFourWithTheStandardVariant)
{
    std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i)
    {
        char text[kUUIDTextLength + 1];
        ASSERT_TRUE(CreateUUIDText(text, sizeof(text)));
        ASSERT_TRUE(std::regex_match(text, form)) << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 500u);
    char small[kUUIDTextLength] = "unchanged"; // too small a buffer is refused
    EXPECT_FALSE(CreateUUIDText(small, sizeof(small)));
    EXPECT_FALSE(CreateUUIDText(nullptr, 100));
}

TEST(UUID, AssignsAStringToValuesButNotToConstants)
{
    ScriptVal value(12.0);
    CreateUUID(value);
    ASSERT_TRUE(value.IsString());
    EXPECT_EQ(std::string(value.ToString()).size(), kUUIDTextLength);
    ScriptVal fixed("fixed");
    fixed.SetFlags(SVF_Const);
    CreateUUID(fixed);
    EXPECT_TRUE(fixed == "fixed");
}
