#include "tarnctl/health/health_options.h"

#include <cstdint>

#include "tarnctl/common/number_checks.h"
#include "tarnctl/health/health_places.h"

namespace tarnctl {

CLI::Validator IsPart() {
    const auto check = [](const std::string& word) {
        for (const char* const part : {kPartCrm, kPartMessages, kPartSecmgr, kPartPacketlog}) {
            if (word == part) {
                return std::string();
            }
        }
        return word + " is none of crm, messages, secmgr and packetlog";
    };
    return {check, "", "part"};
}

void AddWithoutOption(CLI::App& command, std::vector<std::string>& without) {
    command
        .add_option("--without", without, "A part that this sensor does not have; may be repeated")
        ->type_name(kPartChoice)
        ->check(IsPart());
}

void AddPlaceOptions(CLI::App& command, std::optional<int>& channel,
                     std::optional<std::string>& logFile) {
    command
        .add_option("--channel", channel,
                    "The channel of the CRM queue, in place of tarn.engine.crm")
        ->type_name("N")
        ->check(WholeNumber(0, INT32_MAX));
    command.add_option("--log", logFile, "The log, in place of tarn.log.file")->type_name("FILE");
}

}  // namespace tarnctl
