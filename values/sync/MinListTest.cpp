// Tests of MinNode, MinList and MinListT: order, removal, clearing with and without destruction, and the
// pointer adjustment of a typed list whose node is not the first base.

#include "values/sync/MinList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/TestSupport.h"

namespace orvexScript
{
namespace
{

struct Named : MinNode
{
    explicit Named(std::string name) : m_Name(std::move(name)) {}
    std::string m_Name;
};
using Counted = orvexTest::DestroyCounted<Named>;

// MinNode is the second base here, so T * and MinNode * differ in address.
struct Payload
{
    virtual ~Payload() = default;
    double m_Weight = 0;
};
struct Offset : Payload, MinNode
{
    int m_Id = 0;
};

std::vector<std::string> Names(MinListT<Named> &list)
{
    std::vector<std::string> names;
    for (Named *node = list.Next(nullptr); node; node = list.Next(node))
        names.push_back(node->m_Name);
    return names;
}

TEST(MinList, WalksInAddOrderAndEndsWithNull)
{
    MinListT<Named> list;
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.Next(nullptr), nullptr);
    Named a("a"), b("b"), c("c");
    list.Add(&a);
    list += &b;
    list.Add(&c);
    EXPECT_EQ(Names(list), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(list.Next(&c), nullptr);
    list.Clear(false);
}

TEST(MinList, RemoveUnlinksAndJoinsNeighbours)
{
    MinListT<Named> list;
    Named a("a"), b("b"), c("c");
    list += &a;
    list += &b;
    list += &c;
    list -= &b;
    EXPECT_EQ(Names(list), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(b.m_Prev, nullptr);
    EXPECT_EQ(b.m_Next, nullptr);
    EXPECT_EQ(list.Next(&b), nullptr); // a removed node leads nowhere

    list.Remove(&a);
    list.Remove(&c);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_FALSE(c.IsLinked());

    // Re-adding after removal works, and removal reads only the node's links.
    list.Add(&c);
    MinList other;
    other.Remove(&c); // the list object named does not matter
    EXPECT_TRUE(list.IsEmpty());
}

TEST(MinList, ClearUnlinksEveryNodeAndDestroysEachOnceOnlyIfAsked)
{
    int destroyed = 0;
    MinListT<Named> list;
    Counted a(&destroyed, "a"), b(&destroyed, "b");
    list += &a;
    list += &b;
    list.Clear(false);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_FALSE(a.IsLinked());
    EXPECT_FALSE(b.IsLinked());
    EXPECT_EQ(destroyed, 0);
    {
        MinList owner; // a list that goes leaves its nodes alone
        owner.Add(&a);
    }
    EXPECT_EQ(destroyed, 0);

    for (const char *name : {"a", "b", "c"})
        list += new Counted(&destroyed, name); // deleted through the derived destructor
    list.Clear(true);
    EXPECT_EQ(destroyed, 3);
    EXPECT_TRUE(list.IsEmpty());
}

TEST(MinListT, ConvertsPointersOfANonFirstBase)
{
    MinListT<Offset> list;
    Offset x, y;
    x.m_Id = 1;
    y.m_Id = 2;
    ASSERT_NE(static_cast<void *>(&x), static_cast<void *>(static_cast<MinNode *>(&x)));
    list += &x;
    list += &y;
    Offset *first = list.Next(nullptr);
    ASSERT_EQ(first, &x);
    EXPECT_EQ(first->m_Id, 1);
    EXPECT_EQ(list.Next(first)->m_Id, 2);
    EXPECT_EQ(list.Next(&y), nullptr);
    EXPECT_EQ(MinListT<Offset>::ToNode(nullptr), nullptr);
    EXPECT_EQ(MinListT<Offset>::FromNode(nullptr), nullptr);
    list -= &x;
    list -= &y;
    EXPECT_TRUE(list.IsEmpty());
}

} // namespace
} // namespace orvexScript
