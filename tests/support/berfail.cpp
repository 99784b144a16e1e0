#define LDAP_DEPRECATED 1
#include "berfail.h"

#include <array>
#include <cstdarg>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string_view>

#include "tally.h"

namespace support {

struct Calls::State {
    struct Plan {
        int at = 0;
        bool for_ever = false;
        int code = 0;
    };
    std::map<std::string, int, std::less<>> counts;
    std::map<std::string, Plan, std::less<>> plans;
    std::vector<std::pair<void *, std::string>> live;
    Names made;
    Names released;
};

namespace {

thread_local Calls::State *watching;
Tally injected{"failed steps"};

// While the records themselves are written, nothing is watched.
class Pause {
public:
    Pause()
    {
        watching = nullptr;
    }
    ~Pause()
    {
        watching = state;
    }
    Calls::State *const state = watching;
};

// Counts one call. True: it must fail, with *code.
bool fails(std::string_view function, int *code = nullptr)
{
    Pause pause;
    if (pause.state == nullptr)
        return false;
    int count = ++pause.state->counts[std::string(function)];
    auto plan = pause.state->plans.find(function);
    if (plan == pause.state->plans.end() || count < plan->second.at ||
        (count > plan->second.at && !plan->second.for_ever))
        return false;
    ++injected.count;
    if (code != nullptr)
        *code = plan->second.code;
    return true;
}

bool listed_and_fails(std::string_view function, const char *format = nullptr, int *code = nullptr)
{
    {
        Pause pause;
        if (pause.state != nullptr)
            pause.state->made.push_back(std::string(function) +
                                        (format ? std::string(" ") + format : std::string()));
    }
    return fails(function, code);
}

void handed_out(void *block, const char *name)
{
    Pause pause;
    if (pause.state != nullptr && block != nullptr)
        pause.state->live.emplace_back(block, name);
}

// Takes a block off the live ones and returns its name.
std::string taken_back(Calls::State &state, void *block)
{
    if (block == nullptr)
        return "NULL";
    for (auto at = state.live.rbegin(); at != state.live.rend(); ++at)
        if (at->first == block) {
            std::string name = at->second;
            state.live.erase(std::next(at).base());
            return name;
        }
    return "?";
}

void release(const char *function, void *block, const char *remark = "")
{
    Pause pause;
    if (pause.state == nullptr)
        return;
    pause.state->counts[function]++;
    if (std::string_view(function) != "free")
        pause.state->made.push_back(function);
    pause.state->released.push_back(std::string(function) + "(" + taken_back(*pause.state, block) +
                                    remark + ")");
}

// The arguments behind a format, as words: every one is a pointer or an integer, and the calling
// conventions that we build for pass both alike.
constexpr std::size_t most_arguments = 16;
using Arguments = std::array<void *, most_arguments>;

std::size_t arguments_of(char conversion, bool scanning)
{
    switch (conversion) {
    case '{':
    case '}':
    case '[':
    case ']':
    case 'n':
    case 'x':
    case 'N':
        return 0;
    case 'B':
    case 'X':
    case '!':
        return 2;
    case 'o':
        return scanning ? 1 : 2;
    case 's':
        return scanning ? 2 : 1;
    default:
        return 1;
    }
}

Arguments collect(const char *format, bool scanning, va_list list)
{
    Arguments arguments{};
    std::size_t used = 0;
    for (const char *at = format; *at != '\0'; at++)
        for (std::size_t n = arguments_of(*at, scanning); n > 0; n--) {
            if (used == most_arguments)
                std::abort(); // raise most_arguments
            // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller started it
            arguments[used++] = va_arg(list, void *);
        }
    return arguments;
}

template <class Function, std::size_t... I>
auto call(Function *function, BerElement *ber, const char *format, const Arguments &arguments,
          std::index_sequence<I...>)
{
    return function(ber, format, arguments[I]...);
}

// What a successful ber_scanf has handed out.
void note_scanned(const char *format, const Arguments &arguments)
{
    std::size_t used = 0;
    for (const char *at = format; *at != '\0'; at++) {
        void *target = used < most_arguments ? arguments[used] : nullptr;
        switch (*at) {
        case 'a':
        case 'O':
        case 'v':
        case 'V':
            handed_out(*static_cast<void **>(target), std::string(1, *at).c_str());
            break;
        case 'o':
            handed_out(static_cast<berval *>(target)->bv_val, "o");
            break;
        default:
            break;
        }
        used += arguments_of(*at, true);
    }
}

template <class Pointer>
void handed_out_at(Pointer *where, const char *name)
{
    if (where != nullptr)
        handed_out(*where, name);
}

} // namespace

Calls::Calls() : state_(std::make_unique<State>())
{
    if (watching != nullptr)
        throw std::logic_error("the calls of this thread are being watched already");
    watching = state_.get();
}

Calls::~Calls()
{
    watching = nullptr;
}

void Calls::fail(const std::string &function, int nth, int code)
{
    Pause pause;
    state_->plans[function] = {state_->counts[function] + nth, false, code};
}

void Calls::fail_from(const std::string &function, int nth, int code)
{
    Pause pause;
    state_->plans[function] = {state_->counts[function] + nth, true, code};
}

int Calls::count(const std::string &function) const
{
    Pause pause;
    return state_->counts[function];
}

Names Calls::made() const
{
    Pause pause;
    return state_->made;
}

Names Calls::released() const
{
    Pause pause;
    return state_->released;
}

Names Calls::unreleased() const
{
    Pause pause;
    Names names;
    for (const auto &[block, name] : state_->live)
        names.push_back(name);
    return names;
}

} // namespace support

using namespace support;

// The linker sends every call of f in the program to __wrap_f and resolves __real_f to f itself.
extern "C" {

BerElement *__real_ber_alloc();
BerElement *__wrap_ber_alloc()
{
    BerElement *ber = listed_and_fails("ber_alloc") ? nullptr : __real_ber_alloc();
    handed_out(ber, "requestber");
    return ber;
}

BerElement *__real_ber_alloc_t(int options);
BerElement *__wrap_ber_alloc_t(int options)
{
    BerElement *ber = listed_and_fails("ber_alloc_t") ? nullptr : __real_ber_alloc_t(options);
    handed_out(ber, "requestber");
    return ber;
}

BerElement *__real_ber_init(berval *bv);
BerElement *__wrap_ber_init(berval *bv)
{
    BerElement *ber = listed_and_fails("ber_init") ? nullptr : __real_ber_init(bv);
    handed_out(ber, "returnedber");
    return ber;
}

int __real_ber_flatten(BerElement *ber, berval **bv);
int __wrap_ber_flatten(BerElement *ber, berval **bv)
{
    int rc = listed_and_fails("ber_flatten") ? -1 : __real_ber_flatten(ber, bv);
    if (rc != -1)
        handed_out(*bv, "requestbv");
    return rc;
}

int __real_ber_printf(BerElement *ber, const char *format, ...);
int __wrap_ber_printf(BerElement *ber, const char *format, ...)
{
    if (listed_and_fails("ber_printf", format))
        return -1;
    va_list list;
    va_start(list, format);
    Arguments arguments = collect(format, false, list);
    va_end(list);
    return call(__real_ber_printf, ber, format, arguments,
                std::make_index_sequence<most_arguments>());
}

ber_tag_t __real_ber_scanf(BerElement *ber, const char *format, ...);
ber_tag_t __wrap_ber_scanf(BerElement *ber, const char *format, ...)
{
    if (listed_and_fails("ber_scanf", format))
        return LBER_ERROR;
    va_list list;
    va_start(list, format);
    Arguments arguments = collect(format, true, list);
    va_end(list);
    ber_tag_t rc =
        call(__real_ber_scanf, ber, format, arguments, std::make_index_sequence<most_arguments>());
    if (rc != LBER_ERROR)
        note_scanned(format, arguments);
    return rc;
}

ber_tag_t __real_ber_peek_tag(BerElement *ber, ber_len_t *length);
ber_tag_t __wrap_ber_peek_tag(BerElement *ber, ber_len_t *length)
{
    return listed_and_fails("ber_peek_tag") ? LBER_DEFAULT : __real_ber_peek_tag(ber, length);
}

ber_tag_t __real_ber_skip_tag(BerElement *ber, ber_len_t *length);
ber_tag_t __wrap_ber_skip_tag(BerElement *ber, ber_len_t *length)
{
    return listed_and_fails("ber_skip_tag") ? LBER_DEFAULT : __real_ber_skip_tag(ber, length);
}

ber_tag_t __real_ber_first_element(BerElement *ber, ber_len_t *length, char **last);
ber_tag_t __wrap_ber_first_element(BerElement *ber, ber_len_t *length, char **last)
{
    return listed_and_fails("ber_first_element") ? LBER_DEFAULT
                                                 : __real_ber_first_element(ber, length, last);
}

ber_tag_t __real_ber_next_element(BerElement *ber, ber_len_t *length, const char *last);
ber_tag_t __wrap_ber_next_element(BerElement *ber, ber_len_t *length, const char *last)
{
    return listed_and_fails("ber_next_element") ? LBER_DEFAULT
                                                : __real_ber_next_element(ber, length, last);
}

int __real_ber_get_option(void *item, int option, void *value);
int __wrap_ber_get_option(void *item, int option, void *value)
{
    return listed_and_fails("ber_get_option") ? LBER_OPT_ERROR
                                              : __real_ber_get_option(item, option, value);
}

int __real_ldap_set_option(LDAP *ld, int option, const void *value);
int __wrap_ldap_set_option(LDAP *ld, int option, const void *value)
{
    return listed_and_fails("ldap_set_option") ? LDAP_OPT_ERROR
                                               : __real_ldap_set_option(ld, option, value);
}

int __real_ldap_extended_operation(LDAP *ld, const char *name, berval *value, LDAPControl **server,
                                   LDAPControl **client, int *msgid);
int __wrap_ldap_extended_operation(LDAP *ld, const char *name, berval *value, LDAPControl **server,
                                   LDAPControl **client, int *msgid)
{
    int code = 0;
    if (listed_and_fails("ldap_extended_operation", nullptr, &code))
        return code;
    return __real_ldap_extended_operation(ld, name, value, server, client, msgid);
}

int __real_ldap_extended_operation_s(LDAP *ld, const char *name, berval *value,
                                     LDAPControl **server, LDAPControl **client, char **oid,
                                     berval **data);
int __wrap_ldap_extended_operation_s(LDAP *ld, const char *name, berval *value,
                                     LDAPControl **server, LDAPControl **client, char **oid,
                                     berval **data)
{
    int code = 0;
    if (listed_and_fails("ldap_extended_operation_s", nullptr, &code))
        return code;
    code = __real_ldap_extended_operation_s(ld, name, value, server, client, oid, data);
    handed_out_at(oid, "returnedOID");
    handed_out_at(data, "returnedbv");
    return code;
}

int __real_ldap_parse_extended_result(LDAP *ld, LDAPMessage *message, char **oid, berval **data,
                                      int free_it);
int __wrap_ldap_parse_extended_result(LDAP *ld, LDAPMessage *message, char **oid, berval **data,
                                      int free_it)
{
    int code = 0;
    if (listed_and_fails("ldap_parse_extended_result", nullptr, &code))
        return code;
    code = __real_ldap_parse_extended_result(ld, message, oid, data, free_it);
    if (code == LDAP_SUCCESS) {
        handed_out_at(oid, "returnedOID");
        handed_out_at(data, "returnedbv");
    }
    return code;
}

int __real_ldap_parse_intermediate(LDAP *ld, LDAPMessage *message, char **oid, berval **data,
                                   LDAPControl ***controls, int free_it);
int __wrap_ldap_parse_intermediate(LDAP *ld, LDAPMessage *message, char **oid, berval **data,
                                   LDAPControl ***controls, int free_it)
{
    int code = 0;
    if (listed_and_fails("ldap_parse_intermediate", nullptr, &code))
        return code;
    code = __real_ldap_parse_intermediate(ld, message, oid, data, controls, free_it);
    if (code == LDAP_SUCCESS) {
        handed_out_at(oid, "returnedOID");
        handed_out_at(data, "returnedbv");
        handed_out_at(controls, "controls");
    }
    return code;
}

int __real_ldap_parse_result(LDAP *ld, LDAPMessage *message, int *result, char **matched,
                             char **error, char ***referrals, LDAPControl ***controls, int free_it);
int __wrap_ldap_parse_result(LDAP *ld, LDAPMessage *message, int *result, char **matched,
                             char **error, char ***referrals, LDAPControl ***controls, int free_it)
{
    int code = 0;
    if (listed_and_fails("ldap_parse_result", nullptr, &code))
        return code;
    code =
        __real_ldap_parse_result(ld, message, result, matched, error, referrals, controls, free_it);
    if (code == LDAP_SUCCESS) {
        handed_out_at(matched, "matchedDN");
        handed_out_at(error, "errorMessage");
        handed_out_at(referrals, "referrals");
        handed_out_at(controls, "controls");
    }
    return code;
}

void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size)
{
    void *block = fails("malloc") ? nullptr : __real_malloc(size);
    handed_out(block, "malloc");
    return block;
}

void *__real_calloc(std::size_t count, std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size)
{
    void *block = fails("calloc") ? nullptr : __real_calloc(count, size);
    handed_out(block, "calloc");
    return block;
}

void *__real_realloc(void *block, std::size_t size);
void *__wrap_realloc(void *block, std::size_t size)
{
    if (fails("realloc"))
        return nullptr;
    void *moved = __real_realloc(block, size);
    if (moved != nullptr || size == 0) {
        Pause pause;
        if (pause.state != nullptr)
            taken_back(*pause.state, block);
    }
    handed_out(moved, "realloc");
    return moved;
}

char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text)
{
    char *copy = fails("strdup") ? nullptr : __real_strdup(text);
    handed_out(copy, "strdup");
    return copy;
}

void __real_free(void *block);
void __wrap_free(void *block)
{
    release("free", block);
    __real_free(block);
}

void __real_ber_free(BerElement *ber, int buffer_too);
void __wrap_ber_free(BerElement *ber, int buffer_too)
{
    release("ber_free", ber, buffer_too ? "" : ", 0");
    __real_ber_free(ber, buffer_too);
}

void __real_ber_bvfree(berval *value);
void __wrap_ber_bvfree(berval *value)
{
    release("ber_bvfree", value);
    __real_ber_bvfree(value);
}

void __real_ber_memfree(void *block);
void __wrap_ber_memfree(void *block)
{
    release("ber_memfree", block);
    __real_ber_memfree(block);
}

void __real_ldap_memfree(void *block);
void __wrap_ldap_memfree(void *block)
{
    release("ldap_memfree", block);
    __real_ldap_memfree(block);
}

void __real_ldap_value_free(char **values);
void __wrap_ldap_value_free(char **values)
{
    release("ldap_value_free", values);
    __real_ldap_value_free(values);
}

void __real_ldap_controls_free(LDAPControl **controls);
void __wrap_ldap_controls_free(LDAPControl **controls)
{
    release("ldap_controls_free", controls);
    __real_ldap_controls_free(controls);
}

int __real_ldap_msgfree(LDAPMessage *message);
int __wrap_ldap_msgfree(LDAPMessage *message)
{
    release("ldap_msgfree", message);
    return __real_ldap_msgfree(message);
}

} // extern "C"
