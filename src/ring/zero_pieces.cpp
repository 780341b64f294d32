#include "ring/zero_pieces.h"

#include <array>

namespace {

constexpr std::array<std::byte, kZeroBlockBytes> kZeros{};

}  // namespace

const std::byte* ZeroBlock() {
    return kZeros.data();
}
