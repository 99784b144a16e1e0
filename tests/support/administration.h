// The synchronous administrative operations as a table: for each exported function one call with
// fixed arguments, the request that it must send, the response that the server gives and what the
// caller then holds. Tests that put the same question to every operation run over it:
//
//     class Every : public testing::TestWithParam<Operation> {};
//     INSTANTIATE_TEST_SUITE_P(Operation, Every, testing::ValuesIn(operations()), FunctionName());
//
//     Outputs out;
//     EXPECT_EQ(operation.call(peer.ld(), out), 0);
//     EXPECT_EQ(out.describe(), operation.outcome);      // "" where nothing has been written
//
// The table has names and bytes of its own and takes none from the library's headers.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ldapx.h"
#include "support/ber.h"

namespace support {

// Every variable that some operation writes to, marked beforehand so that a write shows. What an
// operation hands out is released when the record goes, or by release().
struct Outputs {
    LDAPReplicaInfo info;
    char *text;
    char **list;
    int numbers[8];
    int count;

    Outputs();
    ~Outputs();
    Outputs(const Outputs &) = delete;
    Outputs &operator=(const Outputs &) = delete;

    // What has been written, as "info.state=3 text=o=x list=[a, b] numbers=[1, 2] count=2".
    std::string describe() const;
    void release();
};

struct Operation {
    std::string function;
    std::string request_name;
    std::string response_name;
    std::optional<std::string> request_value;
    int (*call)(LDAP *ld, Outputs &out);
    // For operations that read a response value: one that they can decode, what the caller then
    // holds, and the result of a value that they cannot decode.
    std::optional<std::string> answer = std::nullopt;
    std::string outcome{};
    int undecodable = 0x53;
    // Takes a response of any name, as long as it has one.
    bool lenient = false;
};

const std::vector<Operation> &operations();
const Operation &operation(const std::string &function);
// The suffix of a parameterised test's name, and what a failure calls the row.
struct FunctionName {
    template <class Info>
    std::string operator()(const Info &info) const
    {
        return info.param.function;
    }
};
inline void PrintTo(const Operation &operation, std::ostream *stream)
{
    *stream << operation.function;
}

// A SEQUENCE as liblber writes it into a request: without LBER_USE_DER it keeps four length bytes
// for every constructed element.
template <class... Parts>
std::string request_sequence(const Parts &...parts)
{
    return element(0x30, concat(parts...), 4);
}

// A name under which the administrative operations travel.
std::string admin_name(int number);

} // namespace support
