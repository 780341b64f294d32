#include "tarnctl/common/number_checks.h"

#include <charconv>
#include <cmath>
#include <sstream>
#include <string>
#include <system_error>

namespace tarnctl {
namespace {

bool IsFiniteNumber(const std::string& word, double& number) {
    return CLI::detail::lexical_cast(word, number) && std::isfinite(number);
}

}  // namespace

CLI::Validator AboveZero() {
    const auto check = [](const std::string& word) {
        double number = 0.0;
        return IsFiniteNumber(word, number) && number > 0 ? std::string()
                                                          : word + " is no number above 0";
    };
    return {check, "", "above 0"};
}

CLI::Validator ZeroOrMore() {
    const auto check = [](const std::string& word) {
        double number = 0.0;
        return IsFiniteNumber(word, number) && number >= 0 ? std::string()
                                                           : word + " is no number of 0 or above";
    };
    return {check, "", "0 or above"};
}

CLI::Validator Between(double least, double most) {
    std::ostringstream range;
    range << least << " to " << most;
    const auto check = [least, most, text = range.str()](const std::string& word) {
        double number = 0.0;
        return IsFiniteNumber(word, number) && number >= least && number <= most
                   ? std::string()
                   : word + " is no number from " + text;
    };
    return {check, "", range.str()};
}

CLI::Validator WholeNumber(uint32_t least, uint32_t most) {
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    const auto check = [least, most, range](const std::string& word) {
        uint64_t number = 0;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        const bool isWhole = error == std::errc() && end == word.data() + word.size();
        const bool isOctal = word.size() > 1 && word.front() == '0';  // as the parser takes it
        return isWhole && !isOctal && number >= least && number <= most
                   ? std::string()
                   : word + " is no whole number from " + range;
    };
    return {check, "", range};
}

}  // namespace tarnctl
