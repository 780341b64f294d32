#include <unistd.h>

#include <ostream>

#include "tarnctl/command_line.h"
#include "tarnctl/common/descriptor_output.h"
#include "tarnctl/common/standard_descriptors.h"

int main(int argc, char** argv) {
    tarnctl::OccupyStandardDescriptors();
    tarnctl::DescriptorBuffer output(STDOUT_FILENO);
    tarnctl::DescriptorBuffer messages(STDERR_FILENO);
    std::ostream out(&output);
    std::ostream err(&messages);
    return tarnctl::RunCommandLine(argc, argv, out, err);
}
