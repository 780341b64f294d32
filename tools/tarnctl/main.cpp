#include <iostream>

#include "tarnctl/command_line.h"

int main(int argc, char** argv) {
    return tarnctl::RunCommandLine(argc, argv, std::cout, std::cerr);
}
