// SPDX-License-Identifier: Apache-2.0
#include "CommandLine.h"
#include "UserLanguage.h"

int main(int argc, char** argv) {
  vimbrel::useUserLanguage();
  return vimbrel::runCommandLine(argc, argv);
}
