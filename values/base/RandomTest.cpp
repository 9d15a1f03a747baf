// Tests of the random generators: MT19937 outputs against the standard library's engine (for 5489 the
// published sequence), the float scalings at their ends, and the per-thread slot.
#include "values/base/Random.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

using namespace orvexScript;

namespace
{

// A generator that gives a fixed list of outputs, to test the scalings exactly.
class ScriptedRandom : public Random
{
public:
    explicit ScriptedRandom(std::vector<uint32_t> outputs) : m_Outputs(std::move(outputs)) {}
    void Seed(uint32_t) override { m_Next = 0; }
    uint32_t Rand_uint32() override { return m_Outputs[m_Next++ % m_Outputs.size()]; }

private:
    std::vector<uint32_t> m_Outputs;
    size_t m_Next = 0;
};

} // namespace

TEST(MersenneTwister, MatchesTheStandardEngineAcrossRegenerations)
{
    for (uint32_t seed : {0u, 1u, 5489u, 19650218u, 0xFFFFFFFFu}) // 5489: the published sequence
    {
        MersenneTwister mt;
        mt.Seed(seed);
        std::mt19937 reference(seed);
        for (int i = 0; i < 3 * MersenneTwister::MT_STATESIZE + 5; ++i)
            ASSERT_EQ(mt.Rand_uint32(), reference()) << "seed " << seed << " output " << i;
    }
}

TEST(MersenneTwister, ReseedRestartsAndUnseededGivesZeros)
{
    MersenneTwister mt;
    for (int i = 0; i < 2 * MersenneTwister::MT_STATESIZE; ++i)
        ASSERT_EQ(mt.Rand_uint32(), 0u);
    mt.Seed(42);
    const uint32_t first = mt.Rand_uint32();
    for (int i = 0; i < 700; ++i)
        mt.Rand_uint32();
    mt.Seed(42);
    EXPECT_EQ(mt.Rand_uint32(), first);
}

// Float32 spans 0 to 1 inclusive; float64 takes the first output as the high part, and its range
// reaches one plus 2^-28.
TEST(RandomFloats, ScalingsAtTheirEnds)
{
    ScriptedRandom rng({0u, 0xFFFFFFFFu, 0x80000000u});
    EXPECT_EQ(rng.Rand_float32(), 0.0f);
    EXPECT_EQ(rng.Rand_float32(), 1.0f);
    EXPECT_FLOAT_EQ(rng.Rand_float32(), 0.5f);
    const double unit = 1.0 / 268435455.0;
    const std::pair<std::vector<uint32_t>, double> cases[] = {
        {{16u, 0u}, unit}, {{0u, 16u}, unit / 268435456.0}, {{0u}, 0.0}, {{0xFFFFFFFFu}, 1.0 + 1.0 / 268435456.0}};
    for (const auto &[outputs, expected] : cases)
        EXPECT_DOUBLE_EQ(ScriptedRandom(outputs).Rand_float64(), expected) << outputs[0];
}

TEST(ThreadRNG, EachThreadSeesOnlyItsOwnGenerator)
{
    MersenneTwister a, b;
    Random *seenB = nullptr, *seenFresh = &a;
    Random::SetThreadRNG(&a);
    std::thread second(
        [&]
        {
            seenFresh = Random::GetThreadRNG();
            Random::SetThreadRNG(&b);
            seenB = Random::GetThreadRNG();
        });
    second.join();
    EXPECT_EQ(Random::GetThreadRNG(), &a);
    EXPECT_EQ(seenB, &b);
    EXPECT_EQ(seenFresh, nullptr);
    Random::SetThreadRNG(nullptr);
    EXPECT_EQ(Random::GetThreadRNG(), nullptr);
}
