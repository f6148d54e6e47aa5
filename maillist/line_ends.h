// LineEnds - the places of the line ends in a text, 64 bytes at a time. Lists have short lines:
// looking for one end after the other takes longer than the reading itself.
#ifndef TSMAIL_MAILLIST_LINE_ENDS_H
#define TSMAIL_MAILLIST_LINE_ENDS_H

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tessaly::maillist {

struct LineEnds {
    static constexpr std::size_t kWidth = 64;  // bytes of a look

    std::uint64_t bits = 0;  // bit i: byte i is "\n"
    bool odd = false;        // whether there is a NUL or "\r" among them
};

// For machines without the instructions below: eight bytes at a time, in whichever byte order.
inline LineEnds portable_line_ends(const char* text) {
    constexpr std::uint64_t kLow7 = 0x7f7f7f7f7f7f7f7f;
    // The top bit of each byte that is zero.
    const auto zeros = [](std::uint64_t x) { return ~(((x & kLow7) + kLow7) | x | kLow7); };
    LineEnds ends;
    for (std::size_t at = 0; at < LineEnds::kWidth; at += 8) {
        std::uint64_t word;
        std::memcpy(&word, text + at, sizeof word);
        if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
        ends.odd = ends.odd || (zeros(word) | zeros(word ^ 0x0d0d0d0d0d0d0d0d)) != 0;
        // The product gathers the eight top bits in one byte.
        const std::uint64_t found = zeros(word ^ 0x0a0a0a0a0a0a0a0a) >> 7;
        ends.bits |= (found * 0x0102040810204080 >> 56) << at;
    }
    return ends;
}

inline LineEnds line_ends(const char* text) {
#ifdef __SSE2__
    LineEnds ends;
    __m128i odd = _mm_setzero_si128();
#pragma GCC unroll 4
    for (std::size_t at = 0; at < LineEnds::kWidth; at += sizeof(__m128i)) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(text + at));
        const auto found =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n'))));
        ends.bits |= static_cast<std::uint64_t>(found) << at;
        odd = _mm_or_si128(odd, _mm_cmpeq_epi8(bytes, _mm_setzero_si128()));
        odd = _mm_or_si128(odd, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\r')));
    }
    ends.odd = _mm_movemask_epi8(odd) != 0;
    return ends;
#else
    return portable_line_ends(text);
#endif
}

}  // namespace Tessaly::maillist

#endif
