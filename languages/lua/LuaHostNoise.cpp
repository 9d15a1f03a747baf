// Fractal noise for scripts (`orvex.noise`): octaves of three-dimensional simplex noise in the
// bit-shuffle form, computed in single precision throughout so that every build gives the same values.
#include <array>
#include <cmath>
#include <cstdint>

#include "languages/lua/LuaHostLib.h"

namespace orvexScript
{

namespace
{

// Spreads the eight bits of a byte to every third bit: bit m goes to bit 3m.
constexpr std::array<uint32_t, 256> MakeSpread()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n)
        for (uint32_t bit = 0; bit < 8; ++bit)
            if (n & (1u << bit)) table[n] |= 1u << (3 * bit);
    return table;
}

constexpr std::array<uint32_t, 256> kSpread = MakeSpread();
static_assert(kSpread[1] == 1 && kSpread[2] == 8 && kSpread[3] == 9 && kSpread[4] == 64);

constexpr uint32_t kGroupHash[8] = {0x15, 0x38, 0x32, 0x2C, 0x0D, 0x13, 0x07, 0x2A};

// Truncates, then goes one lower when the sign bit is set (so -1.0 gives -2 and -0.0 gives -1).
// Values beyond a billion are held there: the noise of such coordinates has no meaning left, and the
// sums below must not overflow.
int32_t FastFloor(float v)
{
    constexpr float kLimit = 1.0e9f;
    float held = v;
    if (!(held > -kLimit)) held = -kLimit; // also NaN
    if (held > kLimit) held = kLimit;
    const int32_t truncated = static_cast<int32_t>(held);
    return std::signbit(v) ? truncated - 1 : truncated;
}

class Simplex
{
public:
    float At(float x, float y, float z)
    {
        const float s = (x + y + z) * 0.33333334f;
        m_I = FastFloor(x + s);
        m_J = FastFloor(y + s);
        m_K = FastFloor(z + s);
        const float t = static_cast<float>(static_cast<int64_t>(m_I) + m_J + m_K) * 0.16666667f;
        m_U = x - static_cast<float>(m_I) + t;
        m_V = y - static_cast<float>(m_J) + t;
        m_W = z - static_cast<float>(m_K) + t;
        const int hi = m_U >= m_W ? (m_U >= m_V ? 0 : 1) : (m_V >= m_W ? 1 : 2);
        const int lo = m_U < m_W ? (m_U < m_V ? 0 : 1) : (m_V < m_W ? 1 : 2);
        float sum = Corner(hi);
        sum += Corner(3 - hi - lo);
        sum += Corner(lo);
        sum += Corner(0);
        return sum;
    }

private:
    uint32_t Hash() const
    {
        const uint32_t e = kSpread[(static_cast<uint32_t>(m_I) + m_A[0]) & 255] * 4 |
                           kSpread[(static_cast<uint32_t>(m_J) + m_A[1]) & 255] * 2 |
                           kSpread[(static_cast<uint32_t>(m_K) + m_A[2]) & 255];
        uint32_t h = 0;
        for (int group = 0; group < 8; ++group)
            h += kGroupHash[(e >> (3 * group)) & 7];
        return h;
    }

    // One corner's contribution; moves the corner offset on along `axis` for the next one.
    float Corner(int axis)
    {
        const float s = static_cast<float>(m_A[0] + m_A[1] + m_A[2]) * 0.16666667f;
        const float x = m_U - static_cast<float>(m_A[0]) + s;
        const float y = m_V - static_cast<float>(m_A[1]) + s;
        const float z = m_W - static_cast<float>(m_A[2]) + s;
        float r = 0.6f - x * x - y * y - z * z;
        const uint32_t h = Hash();
        ++m_A[axis];
        if (r < 0) return 0;
        const uint32_t b = h & 3;
        const bool b2 = (h >> 2) & 1, b3 = (h >> 3) & 1, b4 = (h >> 4) & 1, b5 = (h >> 5) & 1;
        float p = b == 1 ? x : b == 2 ? y : z;
        float q = b == 1 ? y : b == 2 ? z : x;
        float t = b == 1 ? z : b == 2 ? x : y;
        if (b5 == b3) p = -p;
        if (b5 == b4) q = -q;
        if (b5 != (b4 != b3)) t = -t;
        r *= r;
        return 8 * r * r * (b == 0 ? p + q + t : b2 ? p + t : p + q);
    }

    int32_t m_I = 0, m_J = 0, m_K = 0;
    float m_U = 0, m_V = 0, m_W = 0;
    uint32_t m_A[3] = {0, 0, 0};
};

float Noise3(float x, float y, float z)
{
    return Simplex().At(x, y, z);
}

} // namespace

float FractalNoise(float x, float y, float z, float octaves)
{
    const float whole = std::floor(octaves);
    float f = 1, sum = 0;
    for (float i = 1; i <= whole && !std::isinf(f); ++i)
    {
        sum += Noise3(x * f, y, z) / f;
        f *= 2;
    }
    if (!std::isinf(f)) sum += (octaves - whole) / f * Noise3(x * f, y, z);
    return sum;
}

} // namespace orvexScript
