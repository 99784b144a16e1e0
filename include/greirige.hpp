// greirige.hpp - the library's operations for C++20: values instead of out-parameters, nothing to
// release by hand, no buffer that a server can overrun, no result code that can be forgotten.
//
//     #include <greirige.hpp>
//
//     greirige::Session session(ld);                  // an open, bound session of libldap
//     if (auto count = session.partition_entry_count("ou=sales,o=x"))
//         std::cout << *count << " entries\n";
//     else
//         std::cerr << to_string(count.error()) << '\n';
//
// It is header-only and stands on the C interface of ldapx.h and ldap_events.h alone: link
// greirige::cpp (CMake) or greirige and libldap (pkg-config greirige). What the numbers and names
// mean is told there; here is how they are used safely:
//
//   greirige/result.hpp   Result<T> and Error: what every operation gives back
//   greirige/session.hpp  Session: the operations that are one question and one answer
//   greirige/events.hpp   EventStream and Event: the server's events as they happen
//   greirige/bulk.hpp     BulkLoad: a stream of updates in batches
//
// Conventions that hold everywhere:
//
//   - Strings are std::string_view in and std::string out, distinguished names in the form of
//     RFC 4514. The C interface ends a string at its first zero byte; here a string that holds one
//     is refused (LDAPX_PARAM_ERROR) and never cut.
//   - Failures of the server, the connection and the arguments are values (see Result). Only lack
//     of memory throws, std::bad_alloc, and nothing leaks when it does.
//   - The layer keeps no state of its own, and never prints.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "greirige/bulk.hpp"
#include "greirige/events.hpp"
#include "greirige/result.hpp"
#include "greirige/session.hpp"
