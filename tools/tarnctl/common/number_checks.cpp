#include "tarnctl/common/number_checks.h"

#include <cmath>
#include <string>

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

}  // namespace tarnctl
