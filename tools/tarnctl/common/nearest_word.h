#pragma once

// Which known word a misspelt one was meant to be.
//
// Threads: pure functions.

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace tarnctl {

// How many letters have to be put in, left out, replaced or swapped with their neighbour to make
// one word of the other. Upper and lower case count as the same.
[[nodiscard]] size_t LettersApart(std::string_view left, std::string_view right);

// The known word that is nearest to `word`, or an empty text when none is near enough: one letter
// apart for a word of up to three letters, two for up to seven, three for longer ones. A known
// word that only begins with `word` is near as well. Of words that are equally near the one with
// the longer common beginning comes first, then the one that is listed first.
[[nodiscard]] std::string NearestWord(std::string_view word, std::span<const std::string> known);

// ", did you mean 'NEAREST'?", or an empty text when no known word is near enough.
[[nodiscard]] std::string DidYouMean(std::string_view word, std::span<const std::string> known);

}  // namespace tarnctl
