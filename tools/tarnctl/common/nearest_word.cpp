#include "tarnctl/common/nearest_word.h"

#include <algorithm>
#include <vector>

namespace tarnctl {
namespace {

// The words are of the command's and the daemon's own, so the letters of ASCII are enough.
constexpr char Folded(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

size_t CommonBeginning(std::string_view left, std::string_view right) {
    size_t length = 0;
    while (length < left.size() && length < right.size() &&
           Folded(left[length]) == Folded(right[length])) {
        ++length;
    }
    return length;
}

size_t Limit(size_t letters) {
    constexpr size_t kShort = 3;
    constexpr size_t kMiddle = 7;
    return letters <= kShort ? 1 : letters <= kMiddle ? 2 : 3;
}

}  // namespace

// The optimal string alignment distance, with the last three rows of its table.
size_t LettersApart(std::string_view left, std::string_view right) {
    std::vector<size_t> beforeLast(right.size() + 1);
    std::vector<size_t> last(right.size() + 1);
    std::vector<size_t> row(right.size() + 1);
    for (size_t j = 0; j <= right.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= left.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = i;
        for (size_t j = 1; j <= right.size(); ++j) {
            const char a = Folded(left[i - 1]);
            const char b = Folded(right[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a == b ? 0U : 1U)});
            if (i > 1 && j > 1 && a == Folded(right[j - 2]) && Folded(left[i - 2]) == b) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
    }
    return row[right.size()];
}

std::string NearestWord(std::string_view word, std::span<const std::string> known) {
    // A word of two letters and more is enough of a beginning.
    constexpr size_t kBeginning = 2;
    const std::string* nearest = nullptr;
    size_t leastApart = 0;
    size_t longestBeginning = 0;
    for (const std::string& candidate : known) {
        size_t apart = LettersApart(word, candidate);
        const size_t beginning = CommonBeginning(word, candidate);
        const size_t limit = Limit(std::max(word.size(), candidate.size()));
        if (word.size() >= kBeginning && beginning == word.size()) {
            apart = std::min(apart, limit);
        }
        if (apart > limit || apart >= std::max(word.size(), candidate.size())) {
            continue;
        }
        if (nearest == nullptr || apart < leastApart ||
            (apart == leastApart && beginning > longestBeginning)) {
            nearest = &candidate;
            leastApart = apart;
            longestBeginning = beginning;
        }
    }
    return nearest == nullptr ? std::string() : *nearest;
}

std::string DidYouMean(std::string_view word, std::span<const std::string> known) {
    const std::string nearest = NearestWord(word, known);
    return nearest.empty() ? std::string() : ", did you mean '" + nearest + "'?";
}

}  // namespace tarnctl
