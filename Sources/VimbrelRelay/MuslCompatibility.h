// SPDX-License-Identifier: Apache-2.0
// Included before everything else when the relay is built with musl's headers. The compiler's C++ library is
// configured for glibc and names two things that musl does not have. Only its header-only parts are used
// (texts, spans, optionals, number conversions), and none of them touches either.
#pragma once

#define __GLIBC_PREREQ(major, minor) 0
#define __locale_t locale_t
