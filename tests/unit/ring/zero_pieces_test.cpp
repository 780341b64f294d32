#include "ring/zero_pieces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <vector>

namespace {

std::vector<iovec> PiecesOf(uint32_t count) {
    std::vector<iovec> pieces;
    GatherZeros(count, std::back_inserter(pieces));
    return pieces;
}

size_t BytesOf(const std::vector<iovec>& pieces) {
    size_t bytes = 0;
    for (const iovec& piece : pieces) {
        EXPECT_EQ(ZeroBlock(), piece.iov_base);
        EXPECT_LE(piece.iov_len, kZeroBlockBytes);
        EXPECT_LT(0U, piece.iov_len);
        bytes += piece.iov_len;
    }
    return bytes;
}

TEST(ZeroPieces, BlockIsAllZero) {
    EXPECT_EQ(kZeroBlockBytes, static_cast<uint32_t>(std::count(
                                   ZeroBlock(), ZeroBlock() + kZeroBlockBytes, std::byte{0})));
}

TEST(ZeroPieces, CoverTheCountAndAreAsManyAsToldBeforehand) {
    for (const uint32_t count : {0U, 1U, kZeroBlockBytes - 1, kZeroBlockBytes, kZeroBlockBytes + 1,
                                 3 * kZeroBlockBytes, kMostZeros - 1, kMostZeros}) {
        const std::vector<iovec> pieces = PiecesOf(count);
        EXPECT_EQ(count, BytesOf(pieces)) << count;
        EXPECT_EQ(ZeroPieceCount(count), pieces.size()) << count;
    }
}

TEST(ZeroPieces, EndAtMoreThanTheLargestRingTakes) {
    for (const uint32_t count : {kMostZeros + 1, std::numeric_limits<uint32_t>::max()}) {
        EXPECT_EQ(kMostZeros, BytesOf(PiecesOf(count)));
        EXPECT_EQ(kMostZeroPieces, ZeroPieceCount(count));
    }
    EXPECT_LT(kEventQueueFirstRingSize - kShmRingHeaderSize, kMostZeros);
}

TEST(ZeroPieces, ReturnTheEndOfWhatTheyWrote) {
    std::vector<iovec> pieces(kMostZeroPieces);
    EXPECT_EQ(0, GatherZeros(0, pieces.begin()) - pieces.begin());
    EXPECT_EQ(2, GatherZeros(kZeroBlockBytes + 1, pieces.begin()) - pieces.begin());
}

}  // namespace
