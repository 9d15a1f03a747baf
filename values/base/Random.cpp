// Random number generation: the MT19937 generator as published, the float helpers with their exact
// scale factors, and the per-thread generator slot.
#include "values/base/Random.h"

#include <bit>

namespace orvexScript
{

// The scale factors by their bit patterns, so that results match to the last bit.
static constexpr double kInv32 = std::bit_cast<double>(0x3DF0000000100000ull);    // 1 / 4294967295
static constexpr double kInv28 = std::bit_cast<double>(0x3E30000001000000ull);    // 1 / 268435455
static constexpr double kTwoPow28 = std::bit_cast<double>(0x3E30000000000000ull); // 2^-28

static thread_local Random *t_ThreadRNG = nullptr;

Random::~Random() = default;

float Random::Rand_float32()
{
    return static_cast<float>(static_cast<double>(Rand_uint32()) * kInv32);
}

double Random::Rand_float64()
{
    double a = static_cast<double>(Rand_uint32() >> 4);
    double b = static_cast<double>(Rand_uint32() >> 4);
    return (a + b * kTwoPow28) * kInv28;
}

void Random::SetThreadRNG(Random *rng)
{
    t_ThreadRNG = rng;
}

Random *Random::GetThreadRNG()
{
    return t_ThreadRNG;
}

void MersenneTwister::Seed(uint32_t seed)
{
    m_State[0] = seed;
    for (int i = 1; i < MT_STATESIZE; ++i)
    {
        uint32_t prev = m_State[i - 1];
        m_State[i] = 1812433253u * (prev ^ (prev >> 30)) + static_cast<uint32_t>(i);
    }
    m_Index = MT_STATESIZE;
}

void MersenneTwister::CreateState()
{
    constexpr uint32_t kMatrix = 0x9908B0DFu, kUpper = 0x80000000u, kLower = 0x7FFFFFFFu;
    for (int i = 0; i < MT_STATESIZE; ++i)
    {
        uint32_t y = (m_State[i] & kUpper) | (m_State[(i + 1) % MT_STATESIZE] & kLower);
        uint32_t next = m_State[(i + MT_STATEOFFSET) % MT_STATESIZE] ^ (y >> 1);
        m_State[i] = (y & 1) ? next ^ kMatrix : next;
    }
}

uint32_t MersenneTwister::Rand_uint32()
{
    if (m_Index >= MT_STATESIZE)
    {
        CreateState();
        m_Index = 0;
    }
    uint32_t y = m_State[m_Index++];
    y ^= y >> 11;
    y ^= (y << 7) & 0x9D2C5680u;
    y ^= (y << 15) & 0xEFC60000u;
    y ^= y >> 18;
    return y;
}

} // namespace orvexScript
