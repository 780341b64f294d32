#include "tarnctl/common/config_file_options.h"

namespace tarnctl {

void AddConfigFileOptions(CLI::App& command, std::string& config, std::string& events,
                          std::string& state) {
    const auto add = [&command](const char* name, std::string& file, const char* description) {
        command.add_option(name, file, description)->type_name("FILE")->capture_default_str();
    };
    add("-c,--config", config, "The main file, as tarn -c");
    add("-n,--events", events, "The event file, as tarn -n");
    add("--state", state, "The state file");
}

}  // namespace tarnctl
