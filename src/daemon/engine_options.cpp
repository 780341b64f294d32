// The command line of the engine: options, usage, version.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "daemon/engine.h"
#include "version.h"

namespace {

// Deliberate: a file name that is empty or looks like an option is passed over without a word, and
// the default path stays.
void TakeFileName(std::string& target, const char* argument) {
    if (argument != nullptr && argument[0] != '\0' && argument[0] != '-') {
        target = argument;
    }
}

}  // namespace

bool TarnEngine::ParseOptions(int argc, char** argv) {
    opterr = 0;
    optind = 0;  // begins a new scan
    for (;;) {
        const int option = getopt(argc, argv, "c:n:dvh");
        switch (option) {
            case -1:
                return true;
            case 'c':
                TakeFileName(m_configFile, optarg);
                break;
            case 'n':
                TakeFileName(m_eventConfigFile, optarg);
                break;
            case 'd':
                m_runAsDaemon = true;
                break;
            case 'v':
                ShowVersion();
                exit(0);
            case 'h':
                ShowUsage();
                exit(0);
            default:
                std::fprintf(stderr, "Error: Unrecognized option: -%c\n",
                             option == '?' ? optopt : option);
                ShowUsage();
                return false;
        }
    }
}

std::string TarnEngine::GetVersion() {
    return TARN_VERSION;
}

void TarnEngine::ShowVersion() const {
    std::fprintf(stderr, "%s%s\n", m_appName.c_str(), GetVersion().c_str());
}

void TarnEngine::ShowUsage() const {
    // Deliberate: the line names -m and -s, and ParseOptions refuses both.
    std::fprintf(
        stderr,
        "Usage: %s -c <tarn_config_file> -n <snort_event_config_file> [-d] [-m] [-s] [-v] [-h]\n",
        m_appName.c_str());
    std::fprintf(stderr, "The options are as follows:\n");
    std::fprintf(stderr, "-c\t Specifies the %s configuration file name.\n", m_appName.c_str());
    std::fprintf(stderr, "-n\t Specifies the snort configuration file name.\n");
    std::fprintf(stderr, "-d\t Running the application as a daemon.\n");
    std::fprintf(stderr, "-v\t Displays version information.\n");
    std::fprintf(stderr, "-h\t Displays help information.\n");
}
