// Seedable random numbers: the abstract Random with its float helpers and a per-thread slot, and
// MersenneTwister, the MT19937 generator. A generator has no lock: one thread uses it at a time.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ORVEX_API Random
{
public:
    virtual ~Random();
    virtual void Seed(uint32_t seed) = 0;
    // The next 32-bit output.
    virtual uint32_t Rand_uint32() = 0;

    // One output scaled to 0..1, both ends included.
    float Rand_float32();
    // Two outputs, 28 bits of each, scaled to 0..1 + 2^-28.
    double Rand_float64();

    // The calling thread's generator: a plain pointer, neither made nor destroyed by the library.
    // Null on a thread that has set none.
    static void SetThreadRNG(Random *rng);
    static Random *GetThreadRNG();
};

class ORVEX_API MersenneTwister : public Random
{
public:
    static constexpr int MT_STATESIZE = 624;
    static constexpr int MT_STATEOFFSET = 397;

    // Zeroed and not seeded: every output is 0 until Seed is called. Copies go on with the same sequence.
    MersenneTwister() = default;

    void Seed(uint32_t seed) override;
    uint32_t Rand_uint32() override;

protected:
    // Regenerates all words of the state from the current ones.
    void CreateState();

private:
    uint32_t m_State[MT_STATESIZE] = {};
    int32_t m_Index = 0; // next word to give; MT_STATESIZE: regenerate first
};

} // namespace orvexScript
