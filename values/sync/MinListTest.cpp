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

std::string Names(MinListT<Named> &list)
{
    std::string names;
    for (Named *node = list.Next(nullptr); node; node = list.Next(node))
        names += node->m_Name;
    return names;
}

TEST(MinList, WalksInAddOrderAndRemoveJoinsNeighbours)
{
    MinListT<Named> list;
    EXPECT_EQ(list.Next(nullptr), nullptr);
    Named a("a"), b("b"), c("c");
    list.Add(&a);
    list += &b;
    list.Add(&c);
    EXPECT_EQ(Names(list), "abc");
    EXPECT_EQ(list.Next(&c), nullptr);
    list -= &b;
    EXPECT_EQ(Names(list), "ac");
    EXPECT_TRUE(b.m_Prev == nullptr && b.m_Next == nullptr);
    EXPECT_EQ(list.Next(&b), nullptr); // a removed node leads nowhere
    list.Remove(&a);
    list.Remove(&c);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_FALSE(c.IsLinked());
    list.Add(&c); // re-adding after removal works, and removal reads only the node's links
    MinList other;
    other.Remove(&c);
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
    EXPECT_TRUE(list.IsEmpty() && !a.IsLinked() && !b.IsLinked());
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
    ASSERT_EQ(list.Next(nullptr), &x);
    EXPECT_EQ(list.Next(&x)->m_Id, 2);
    EXPECT_EQ(list.Next(&y), nullptr);
    EXPECT_EQ(MinListT<Offset>::ToNode(nullptr), nullptr);
    EXPECT_EQ(MinListT<Offset>::FromNode(nullptr), nullptr);
    list -= &x;
    list -= &y;
    EXPECT_TRUE(list.IsEmpty());
}

} // namespace
} // namespace orvexScript
