// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Support/Sentence.h"

namespace vimbrel {

/// Sentences that others make and our surfaces show: `retell` knows them because they stand here for the
/// translation tools to find. Nothing else uses this list.
inline constexpr const char* foreignSentences[] = {
    // The C library's errors that users meet.
    sentence("No such file or directory"), sentence("Permission denied"), sentence("Operation not permitted"),
    sentence("Connection refused"), sentence("Is a directory"), sentence("Not a directory"),
    sentence("No space left on device"), sentence("Read-only file system"), sentence("Exec format error"),
    sentence("Resource temporarily unavailable"), sentence("Too many open files"),
    // The command line's parser.
    sentence("%1 is required"), sentence("A subcommand is required"),
    sentence("The following argument was not expected: %1"),
    sentence("The following arguments were not expected: %1"), sentence("%1: %2 required %3 missing"),
    sentence("Could not convert: %1 = %2"), sentence("%1: %2 not in {%3}"),
    // Helpers and agents.
    sentence("AC Power"), sentence("Battery Power")};

}  // namespace vimbrel
