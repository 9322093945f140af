// SPDX-License-Identifier: Apache-2.0
#include "CommandLine.h"

int main(int argc, char** argv) { return vimbrel::runCommandLine(argc, argv); }
