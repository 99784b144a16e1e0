// greirige/bulk.hpp - bulk loading: a stream of updates to one server, in batches (LBURP, RFC
// 4373).
//
//     auto load = BulkLoad::start(session, [](const BulkFailure &failure) {
//         std::cerr << failure.dn << ": " << to_string(failure.error) << '\n';
//     });
//     while (read(update))
//         if (Result<void> taken = load->submit(update); !taken)
//             return taken.error();
//     Result<BulkSummary> done = load->finish();
//
// Updates are gathered into batches, batches are sent without waiting for the answers to those
// before, up to a window; then submit() waits for the oldest. So memory stays flat however long
// the load is, and a slow server slows the caller down. The server applies the updates in order;
// those that fail are told to the caller one by one, the others go on.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "greirige/detail.hpp"
#include "greirige/result.hpp"
#include "greirige/session.hpp"
#include "ldapx.h"

namespace greirige {

// ---- Updates ------------------------------------------------------------------------------------

// An attribute and its values, which may be any bytes.
struct Attribute {
    std::string name;
    std::vector<std::string> values = {};
};

// What a modification does with its values (RFC 4511, 4.6; RFC 4525 for the last).
enum class ChangeKind : int {
    add = LDAP_MOD_ADD,
    remove = LDAP_MOD_DELETE, // no values: all of them
    replace = LDAP_MOD_REPLACE,
    increment = LDAP_MOD_INCREMENT,
};

// One modification of an entry.
struct Change {
    ChangeKind kind = ChangeKind::replace;
    Attribute attribute;
};

// A control that goes with one update.
struct Control {
    std::string oid;
    bool critical = false;
    std::optional<std::string> value = std::nullopt;
};

struct AddEntry {
    std::string dn;
    std::vector<Attribute> attributes = {};
    std::vector<Control> controls = {};
};
struct DeleteEntry {
    std::string dn;
    std::vector<Control> controls = {};
};
struct ModifyEntry {
    std::string dn;
    std::vector<Change> changes = {};
    std::vector<Control> controls = {};
};
struct RenameEntry {
    std::string dn;
    std::string new_rdn;
    bool delete_old_rdn = true;                             // its values leave the entry
    std::optional<std::string> new_superior = std::nullopt; // nothing: the entry stays where it is
    std::vector<Control> controls = {};
};
using Update = std::variant<AddEntry, DeleteEntry, ModifyEntry, RenameEntry>;

// ---- Outcomes -----------------------------------------------------------------------------------

// An update that failed.
struct BulkFailure {
    // Which one: its number in the load, counted from 0, the tag and the name that it was
    // submitted with. No number where the server names an update that is not in the batch.
    std::optional<std::uint64_t> number;
    std::uint64_t tag = 0;
    std::string dn;
    // Why. Where the server refused a whole batch, each of its updates fails with that.
    Error error;
};

// How far a load is, or how far it came.
struct BulkSummary {
    std::uint64_t submitted = 0; // updates taken over from the caller
    std::uint64_t answered = 0;  // of these, the first so many have had their outcome told
    // Failures told: those of answered updates, and of any that the server names besides.
    std::uint64_t failed = 0;
    std::uint64_t batches = 0; // sent, those included that stand in for refused ones

    friend bool operator==(const BulkSummary &, const BulkSummary &) = default;
};

// How a load is cut into batches.
struct BulkOptions {
    // Most updates in a batch. 0: as many as the server announces, at most 1,000; 100 where it
    // announces nothing. Never more than it announces.
    std::size_t operations = 0;
    // Most bytes in a batch. A larger update travels alone.
    std::size_t bytes = std::size_t{1} << 20;
    // Most batches under way, sent and not yet answered; at least 1.
    std::size_t window = 4;
};

// ---- The load -----------------------------------------------------------------------------------

// A bulk update under way.
//
// It keeps a handle of its own on the session's connection, so it may outlive the Session and the
// LDAP *. The session's LDAP_OPT_TIMEOUT bounds the wait for each answer to begin; only a limit of
// the socket's own (SO_RCVTIMEO) ends a wait for the rest of one. An error of the connection, or an
// answer that cannot be read, ends the load: every later call gives the same error, and progress()
// tells which updates have had their outcome. A load that is destroyed before finish() drops what
// it has not sent and does not wait for what it has: whether that was applied is then unknown.
//
// A signal that interrupts a wait gives LDAP_USER_CANCELLED (-8), a wait that lasts too long
// LDAP_TIMEOUT (-5). Neither changes anything: the same call may be made again, and goes on where
// it was. (With the session's LDAP_OPT_RESTART on, interrupted waits go on by themselves.)
class BulkLoad {
public:
    // Told of each update that failed, in the order of the server's answers, from within submit()
    // and finish(). What it throws comes out of them, and the load can go on.
    using FailureHandler = std::function<void(const BulkFailure &)>;

    // Asks the server to begin, and waits for its answer. Its refusal is the error;
    // LDAPX_NOT_SUPPORTED where it does not know bulk updates.
    static Result<BulkLoad> start(Session session, FailureHandler on_failure,
                                  const BulkOptions &options = {});

    // Takes an update over; sends the batch that is full, and waits when the window is. The tag
    // comes back with the failure: a line number, for example.
    //
    // LDAPX_PARAM_ERROR for an update that cannot be sent as it is (a zero byte in a name) and
    // LDAPX_ENCODING_ERROR for one that cannot be encoded: it is not taken, and the load goes on.
    Result<void> submit(const Update &update, std::uint64_t tag = 0);

    // Sends what is left, waits for all outcomes and ends the load. That updates failed is not an
    // error here; the summary tells how many.
    Result<BulkSummary> finish();

    // Sends what has been gathered without waiting for more.
    Result<void> flush();

    // Sends what has been gathered and waits for all outcomes; the load goes on.
    Result<void> settle();

    BulkSummary progress() const;
    // How the load is cut, after the options and the server's announcement.
    BulkOptions limits() const;
    // The transaction size that the server announced; 0 or less where it announced none.
    int transaction_size() const;

private:
    struct Operation {
        std::uint64_t number = 0;
        std::uint64_t tag = 0;
        std::string dn;
    };
    struct Batch {
        int message_id = 0;
        int sequence = 0;
        std::vector<Operation> operations;
    };
    struct State;

    explicit BulkLoad(std::unique_ptr<State> state) noexcept;
    static Error moved_from();

    std::unique_ptr<State> state_; // none in a load that has been moved from
};

// ---- Implementation -----------------------------------------------------------------------------

namespace detail {

inline constexpr std::string_view bulk_update = "bulk_update";

// An update in the C API's terms, which point into it: it must outlive this.
class CUpdate {
public:
    explicit CUpdate(const Update &update) : update_(update)
    {
        std::visit([this](const auto &each) { take(each); }, update_);
    }
    CUpdate(const CUpdate &) = delete;
    CUpdate &operator=(const CUpdate &) = delete;

    // The parameter whose string holds a zero byte and would arrive cut; empty for none.
    std::string_view cut() const noexcept
    {
        return cut_;
    }
    // Appends the update to ber. On failure ber has been released.
    int encode(LDAP *ld, BerElement *ber)
    {
        return std::visit([&](const auto &each) { return encode(each, ld, ber); }, update_);
    }

private:
    struct Values {
        std::vector<berval> values;
        std::vector<berval *> pointers;
    };

    void take(const AddEntry &add)
    {
        text("dn", add.dn);
        for (const Attribute &attribute : add.attributes)
            take(0, attribute);
        take_controls(add.controls);
    }
    void take(const DeleteEntry &remove)
    {
        text("dn", remove.dn);
        take_controls(remove.controls);
    }
    void take(const ModifyEntry &modify)
    {
        text("dn", modify.dn);
        for (const Change &change : modify.changes)
            take(static_cast<int>(change.kind), change.attribute);
        take_controls(modify.controls);
    }
    void take(const RenameEntry &rename)
    {
        text("dn", rename.dn);
        text("new_rdn", rename.new_rdn);
        if (rename.new_superior)
            text("new_superior", *rename.new_superior);
        take_controls(rename.controls);
    }
    void take(int operation, const Attribute &attribute)
    {
        Values &held = values_.emplace_back();
        held.values.reserve(attribute.values.size());
        held.pointers.reserve(attribute.values.size() + 1);
        for (const std::string &value : attribute.values)
            held.values.push_back(bytes(value));
        for (berval &value : held.values)
            held.pointers.push_back(&value);
        held.pointers.push_back(nullptr);
        LDAPMod &mod = mods_.emplace_back();
        mod.mod_op = operation | LDAP_MOD_BVALUES;
        mod.mod_type = text("attribute", attribute.name);
        mod.mod_bvalues = held.pointers.data();
    }
    void take_controls(const std::vector<Control> &controls)
    {
        for (const Control &control : controls) {
            LDAPControl &made = controls_.emplace_back();
            made.ldctl_oid = text("control", control.oid);
            made.ldctl_value = control.value ? bytes(*control.value) : berval{};
            made.ldctl_iscritical = control.critical ? 1 : 0;
        }
        mod_pointers_ = pointers_to(mods_);
        control_pointers_ = pointers_to(controls_);
    }

    int encode(const AddEntry &add, LDAP *ld, BerElement *ber)
    {
        return LBURPEncodeAdd(ld, add.dn.c_str(), mod_pointers_.data(), controls(), ber);
    }
    int encode(const DeleteEntry &remove, LDAP *ld, BerElement *ber)
    {
        return LBURPEncodeDelete(ld, remove.dn.c_str(), controls(), ber);
    }
    int encode(const ModifyEntry &modify, LDAP *ld, BerElement *ber)
    {
        return LBURPEncodeMod(ld, modify.dn.c_str(), mod_pointers_.data(), controls(), ber);
    }
    // The C interface's batch record has no room for all of a rename; its encoder has.
    int encode(const RenameEntry &rename, LDAP *ld, BerElement *ber)
    {
        return LBURPEncodeModRDN(ld, rename.dn.c_str(), rename.new_rdn.c_str(),
                                 rename.new_superior ? rename.new_superior->c_str() : nullptr,
                                 rename.delete_old_rdn ? 1 : 0, controls(), ber);
    }
    // None are NULL: an empty array would be sent as an empty element.
    LDAPControl **controls()
    {
        return controls_.empty() ? nullptr : control_pointers_.data();
    }

    char *text(std::string_view parameter, const std::string &string)
    {
        if (cut_.empty() && string.find('\0') != string.npos)
            cut_ = parameter;
        return const_cast<char *>(string.c_str());
    }
    static berval bytes(const std::string &value)
    {
        return {value.size(), const_cast<char *>(value.data())};
    }
    template <class Element>
    static std::vector<Element *> pointers_to(std::deque<Element> &elements)
    {
        std::vector<Element *> pointers;
        pointers.reserve(elements.size() + 1);
        for (Element &element : elements)
            pointers.push_back(&element);
        pointers.push_back(nullptr);
        return pointers;
    }

    const Update &update_;
    std::string_view cut_;
    std::deque<Values> values_; // deques: their elements stay where they are
    std::deque<LDAPMod> mods_;
    std::deque<LDAPControl> controls_;
    std::vector<LDAPMod *> mod_pointers_;
    std::vector<LDAPControl *> control_pointers_;
};

// An update as it stands in a batch.
inline Result<std::string> encode_update(LDAP *ld, const Update &update)
{
    CUpdate form(update);
    if (!form.cut().empty())
        return bad_argument(bulk_update, form.cut(), "the string holds a zero byte");
    BerElement *ber = ber_alloc_t(LBER_USE_DER);
    if (!ber)
        no_memory();
    if (const int rc = form.encode(ld, ber); rc != LDAP_SUCCESS)
        return refusal(rc, ldapx_err2string(rc), std::string(bulk_update));
    const Element owner(ber);
    berval bytes{};
    if (ber_flatten2(ber, &bytes, 0) == -1)
        no_memory();
    return std::string(bytes.bv_val, bytes.bv_len);
}

// SEQUENCE { INTEGER sequence, updates ... }. Nothing when there is no memory for it.
inline Element encode_batch(int sequence, const std::string &updates)
{
    Element ber(ber_alloc_t(LBER_USE_DER));
    if (!ber || ber_printf(ber.get(), "{i", sequence) == -1 ||
        ber_write(ber.get(), updates.data(), updates.size(), 0) == -1 ||
        ber_printf(ber.get(), "}") == -1)
        ber.reset();
    return ber;
}

// An update that the server says has failed. The message points into the response.
struct FailedUpdate {
    std::int32_t package = 0; // its number in the batch, counted from 1
    std::int32_t code = LDAP_OTHER;
    std::string_view matched_dn;
    std::string_view message;
};

// Elements SEQUENCE { INTEGER package, SEQUENCE { code, matched DN, message, ... } }, one after the
// other. One that says no more than the package has failed for a reason that the server keeps.
// False for bytes that are anything else.
inline bool read_failed_updates(const berval &value, std::vector<FailedUpdate> &failed)
{
    Reader list(value);
    while (list.unread() > 0 && list.tag() != Reader::none) {
        FailedUpdate update;
        Reader element(list.content());
        if (!element.next_is(LBER_INTEGER))
            return false;
        update.package = element.number();
        if (element.unread() > 0) {
            Reader result(element.content());
            update.code = result.number();
            if (update.code == LDAP_SUCCESS)
                update.code = LDAP_OTHER; // it is listed, so it has failed
            update.matched_dn = result.any_string();
            update.message = result.any_string();
            if (!result.ok())
                return false;
        }
        if (!element.ok())
            return false;
        failed.push_back(update);
        list.pass();
    }
    return list.unread() == 0;
}

} // namespace detail

struct BulkLoad::State {
    detail::Handle ld;
    FailureHandler on_failure;
    BulkOptions limits = {};
    int transaction_size = 0;
    int next_sequence = 1;
    int own_message_id = 0;    // of the start or end request that has not been answered
    std::string gathered = {}; // the updates of the batch that is being made
    Batch gathering = {};
    std::deque<Batch> under_way = {};
    BulkSummary summary = {};
    std::optional<Error> ended = std::nullopt;

    State(detail::Handle handle, FailureHandler handler)
        : ld(std::move(handle)), on_failure(std::move(handler))
    {
    }
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    ~State()
    {
        abandon();
    }

    void abandon() noexcept
    {
        if (own_message_id != 0)
            ldap_abandon_ext(ld.get(), own_message_id, nullptr, nullptr);
        own_message_id = 0;
        for (const Batch &batch : under_way)
            ldap_abandon_ext(ld.get(), batch.message_id, nullptr, nullptr);
        under_way.clear();
    }
    Error lose(Error error)
    {
        abandon();
        ended = error;
        return error;
    }
    Error lose(int code)
    {
        return lose(detail::failure(ld.get(), code, detail::bulk_update));
    }

    bool full(std::size_t more = 0) const noexcept
    {
        return gathering.operations.size() >= limits.operations ||
               gathered.size() + more > limits.bytes;
    }

    // The answer to a request: waits for it, or only looks whether it has come.
    Result<detail::Message> answer_to(int message_id, bool waiting)
    {
        timeval now{};
        LDAPMessage *received = nullptr;
        errno = 0;
        const int kind =
            ldap_result(ld.get(), message_id, LDAP_MSG_ALL, waiting ? nullptr : &now, &received);
        detail::Message message(received);
        if (kind > 0 || (kind == 0 && !waiting))
            return message;
        if (kind < 0 && errno == EINTR) {
            // The LDAP library takes that for the loss of the connection, and would from now on.
            const int success = LDAP_SUCCESS;
            ldap_set_option(ld.get(), LDAP_OPT_RESULT_CODE, &success);
            return detail::refusal(LDAP_USER_CANCELLED, "a signal interrupted the wait",
                                   std::string(detail::bulk_update));
        }
        const int code = detail::session_code(ld.get());
        if (kind == 0)
            return detail::failure(ld.get(), code, detail::bulk_update); // it may still come
        return lose(code);
    }

    // Takes the answers that have come; waits for the oldest while the window is full, or for all.
    Result<void> collect(bool all)
    {
        while (!under_way.empty()) {
            const bool waiting = all || under_way.size() >= limits.window;
            Result<detail::Message> message = answer_to(under_way.front().message_id, waiting);
            if (!message)
                return std::move(message).error();
            if (!*message)
                return {};
            const Batch batch = std::move(under_way.front());
            under_way.pop_front();
            Result<detail::Answer> answer =
                detail::read_answer(ld.get(), message->get(), detail::bulk_update);
            if (!answer)
                return lose(std::move(answer).error());
            if (Result<void> settled = settle(*answer, batch); !settled)
                return settled;
        }
        return {};
    }

    // Sends a batch, and counts it to those under way.
    Result<void> request(Batch batch, const std::string &updates, bool first = false)
    {
        const detail::Element ber = detail::encode_batch(batch.sequence, updates);
        berval value{};
        if (!ber || ber_flatten2(ber.get(), &value, 0) == -1)
            return lose(LDAPX_NO_MEMORY);
        detail::forget_earlier(ld.get());
        const int rc = ldap_extended_operation(ld.get(), LDAPX_LBURP_OPERATION_REQUEST, &value,
                                               nullptr, nullptr, &batch.message_id);
        if (rc != LDAP_SUCCESS)
            return lose(rc);
        ++summary.batches;
        under_way.insert(first ? under_way.begin() : under_way.end(), std::move(batch));
        return {};
    }

    // A server that refuses a batch as a whole may go on waiting for one with that number, and keep
    // those after it. An empty one takes its place; what becomes of it does not matter.
    Result<void> fill_place_of(const Batch &refused)
    {
        if (refused.operations.empty())
            return {};
        return request({0, refused.sequence, {}}, {}, true);
    }

    // What became of the updates of a batch.
    Result<void> settle(const detail::Answer &answer, const Batch &batch)
    {
        const bool named =
            answer.name && answer.name.get() == std::string_view(LDAPX_LBURP_OPERATION_RESPONSE);
        std::vector<detail::FailedUpdate> failed;
        if (!named && answer.code == LDAP_SUCCESS)
            return lose(LDAPX_NOT_SUPPORTED);
        if (named && answer.value && !detail::read_failed_updates(*answer.value, failed))
            return lose(LDAPX_DECODING_ERROR);

        // A batch that the server refuses as a whole, and one that has failures that it does not
        // list: each update that is not listed fails with the batch.
        std::vector<bool> listed(batch.operations.size());
        std::vector<std::pair<const Operation *, const detail::FailedUpdate *>> reports;
        reports.reserve(failed.size());
        for (const detail::FailedUpdate &update : failed) {
            const std::size_t index = static_cast<std::size_t>(update.package) - 1;
            const bool known = update.package >= 1 && index < batch.operations.size();
            if (known && listed[index])
                continue;
            if (known)
                listed[index] = true;
            reports.emplace_back(known ? &batch.operations[index] : nullptr, &update);
        }
        const bool whole =
            answer.code != LDAP_SUCCESS && (answer.code != LDAP_OTHER || failed.empty());
        const detail::FailedUpdate refused{0, answer.code, answer.matched_dn, answer.message};
        for (std::size_t index = 0; whole && index < batch.operations.size(); ++index)
            if (!listed[index])
                reports.emplace_back(&batch.operations[index], &refused);

        summary.answered += batch.operations.size();
        summary.failed += reports.size();
        Result<void> filled;
        if (whole && answer.code != LDAP_OTHER && failed.empty())
            filled = fill_place_of(batch);
        for (const auto &[operation, update] : reports)
            report(operation, *update);
        return filled;
    }

    void report(const Operation *operation, const detail::FailedUpdate &update) const
    {
        if (!on_failure)
            return;
        BulkFailure failure{std::nullopt,
                            0,
                            {},
                            Error{update.code, ldapx_err2string(update.code),
                                  std::string(detail::bulk_update), std::string(update.message),
                                  std::string(update.matched_dn)}};
        if (operation) {
            failure.number = operation->number;
            failure.tag = operation->tag;
            failure.dn = operation->dn;
        }
        on_failure(failure);
    }

    // Sends what has been gathered, once the window has room for it.
    Result<void> send()
    {
        if (gathering.operations.empty())
            return {};
        if (Result<void> room = collect(false); !room)
            return room;
        if (next_sequence == std::numeric_limits<int>::max())
            return lose(LDAPX_PARAM_ERROR);
        gathering.sequence = next_sequence;
        if (Result<void> sent = request(std::move(gathering), gathered); !sent)
            return sent;
        ++next_sequence;
        gathering = Batch();
        gathered.clear();
        return {};
    }
};

inline BulkLoad::BulkLoad(std::unique_ptr<State> state) noexcept : state_(std::move(state)) {}

inline Result<BulkLoad> BulkLoad::start(Session session, FailureHandler on_failure,
                                        const BulkOptions &options)
{
    detail::Call call(session.handle(), detail::bulk_update);
    if (!call.ready())
        return call.ready().error();
    auto state =
        std::make_unique<State>(detail::Handle(ldap_dup(session.handle())), std::move(on_failure));
    LDAP *ld = state->ld.get();
    if (!ld)
        return call.failure(LDAPX_NO_MEMORY);

    detail::Call request(ld, detail::bulk_update);
    if (Result<void> sent =
            request.run([&] { return ldap_lburp_start_request(ld, &state->own_message_id); });
        !sent)
        return std::move(sent).error();
    Result<detail::Message> message = state->answer_to(state->own_message_id, true);
    if (!message)
        return std::move(message).error();
    state->own_message_id = 0;

    int code = LDAP_SUCCESS;
    char *text = nullptr;
    const int rc = ldap_parse_lburp_start_response(ld, message->get(), &code, &text,
                                                   &state->transaction_size, 0);
    const detail::LdapString owned(text);
    if (code != LDAP_SUCCESS)
        return request.failure(code);
    if (rc != LDAP_SUCCESS)
        return request.failure(rc);

    const auto announced = static_cast<std::size_t>(std::max(state->transaction_size, 0));
    const std::size_t most = announced > 0 ? announced : 100;
    state->limits.operations = std::min<std::size_t>(most, 1000);
    if (options.operations > 0)
        state->limits.operations =
            announced > 0 ? std::min(options.operations, announced) : options.operations;
    state->limits.bytes = options.bytes;
    state->limits.window = std::max<std::size_t>(options.window, 1);
    return BulkLoad(std::move(state));
}

inline Result<void> BulkLoad::submit(const Update &update, std::uint64_t tag)
{
    if (!state_)
        return moved_from();
    if (state_->ended)
        return *state_->ended;
    Result<std::string> bytes = detail::encode_update(state_->ld.get(), update);
    if (!bytes)
        return std::move(bytes).error();
    if (state_->full(bytes->size()))
        if (Result<void> sent = state_->send(); !sent)
            return sent;

    std::string dn = std::visit([](const auto &each) { return each.dn; }, update);
    state_->gathered += *bytes;
    state_->gathering.operations.push_back({state_->summary.submitted, tag, std::move(dn)});
    ++state_->summary.submitted;
    // A batch that is full goes out at once where that needs no waiting: an interruption there
    // would leave the caller in doubt whether the update was taken.
    if (state_->full() && state_->under_way.size() < state_->limits.window)
        return state_->send();
    return {};
}

inline Result<void> BulkLoad::flush()
{
    if (!state_)
        return moved_from();
    if (state_->ended)
        return *state_->ended;
    return state_->send();
}

inline Result<void> BulkLoad::settle()
{
    if (Result<void> sent = flush(); !sent)
        return sent;
    return state_->collect(true);
}

inline Result<BulkSummary> BulkLoad::finish()
{
    if (Result<void> settled = settle(); !settled)
        return std::move(settled).error();

    LDAP *ld = state_->ld.get();
    int rc = LDAP_SUCCESS;
    if (state_->own_message_id == 0) {
        detail::forget_earlier(ld);
        rc = ldap_lburp_end_request(ld, state_->next_sequence, &state_->own_message_id);
        if (rc != LDAP_SUCCESS)
            return state_->lose(rc);
    }
    Result<detail::Message> message = state_->answer_to(state_->own_message_id, true);
    if (!message)
        return std::move(message).error();
    state_->own_message_id = 0;

    int code = LDAP_SUCCESS;
    char *text = nullptr;
    rc = ldap_parse_lburp_end_response(ld, message->get(), &code, &text, 0);
    const detail::LdapString owned(text);
    if (code != LDAP_SUCCESS || rc != LDAP_SUCCESS)
        return state_->lose(code != LDAP_SUCCESS ? code : rc);
    state_->lose(detail::bad_argument(detail::bulk_update, "", "the load has been finished"));
    return state_->summary;
}

inline BulkSummary BulkLoad::progress() const
{
    return state_ ? state_->summary : BulkSummary();
}

inline BulkOptions BulkLoad::limits() const
{
    return state_ ? state_->limits : BulkOptions();
}

inline int BulkLoad::transaction_size() const
{
    return state_ ? state_->transaction_size : 0;
}

inline Error BulkLoad::moved_from()
{
    return detail::bad_argument(detail::bulk_update, "", "the load has been moved from");
}

} // namespace greirige
