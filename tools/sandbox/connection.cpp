#include "connection.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <strings.h>
#include <utility>

namespace sandbox {

namespace {

// How much of a request is kept until it is answered, while nobody watches.
constexpr std::size_t kept_of_request = 8 * 1024;
// How much of an entry is looked at when somebody watches which entries are found.
constexpr std::size_t examined_of_entry = 64 * 1024;
// More requests than this without an answer are refused: each costs memory here and in slapd.
constexpr std::size_t most_exchanges = 10000;

// Requests that are looked at whole before they go anywhere.
bool needs_whole(ber::Tag request)
{
    return request == LDAP_REQ_BIND || request == LDAP_REQ_EXTENDED ||
           request == LDAP_REQ_ABANDON || request == LDAP_REQ_UNBIND;
}

// Moves what is here of a passing message. False when there is more to come.
bool pass_on(Link &from, Link &to, std::size_t &rest)
{
    const std::size_t size = std::min(rest, from.input().size());
    to.send(from.input().substr(0, size));
    from.consume(size);
    rest -= size;
    return rest == 0;
}

bool has_critical_control(std::string_view controls)
{
    ber::Reader list(controls);
    while (!list.at_end()) {
        ber::Reader control = list.enter(ber::sequence_tag);
        control.octets();
        if (control.next_tag() == ber::boolean_tag && control.boolean())
            return true;
    }
    return false;
}

} // namespace

Connection::Connection(const Service &service, Link::Socket client, Link::Socket slapd, Client who)
    : service_(service), who_(std::make_shared<const Client>(std::move(who))),
      client_(std::make_shared<Link>(std::move(client))),
      slapd_(std::make_shared<Link>(std::move(slapd)))
{
}

void Connection::start(bool tls_at_once, std::function<void()> ended)
{
    ended_ = std::move(ended);
    const auto with_self = [this](void (Connection::*member)()) {
        return [weak = weak_from_this(), member] {
            if (const auto self = weak.lock())
                (*self.*member)();
        };
    };
    const auto gone = [weak = weak_from_this()](const std::string &) {
        if (const auto self = weak.lock())
            self->end();
    };
    client_->start(
        {with_self(&Connection::take_requests), with_self(&Connection::take_responses), gone});
    slapd_->start(
        {with_self(&Connection::take_responses), with_self(&Connection::take_requests), gone});
    if (service_.traffic != nullptr)
        service_.traffic->connected(who_);
    if (tls_at_once)
        client_->start_tls(*service_.tls, with_self(&Connection::take_requests));
    client_->receive();
    slapd_->receive();
}

void Connection::end(const Result &notice)
{
    if (!is_open())
        return;
    // A notice in the middle of another message could not be told from its bytes.
    if (!notice.ok() && response_rest_ == 0)
        client_->send(notice_of_disconnection(notice));
    client_->finish();
    slapd_->close();
    for (const auto &[id, call] : std::exchange(calls_, {}))
        call->stop();
    if (service_.traffic != nullptr)
        service_.traffic->disconnected(who_);
    states_.clear();
    if (const auto ended = std::exchange(ended_, {}))
        ended();
}

bool Connection::is_open() const
{
    return static_cast<bool>(ended_);
}

// ---- From the client to slapd -----------------------------------------------------------------

bool Connection::may_take_requests() const
{
    return is_open() && !binding_ && !client_->is_securing() && !slapd_->congested() &&
           !client_->congested() && kept_ <= service_.max_message;
}

void Connection::take_requests()
{
    try {
        while (may_take_requests()) {
            if (request_rest_ > 0) {
                if (!pass_on(*client_, *slapd_, request_rest_))
                    break;
                continue;
            }
            const auto head = read_head(client_->input(), service_.max_message);
            if (!head || !take_request(*head))
                break;
        }
    } catch (const ber::Malformed &error) {
        end({LDAP_PROTOCOL_ERROR, error.what(), {}});
    }
    if (may_take_requests())
        client_->receive();
}

// False when more of the message must be here first.
bool Connection::take_request(const MessageHead &head)
{
    const bool whole = needs_whole(head.operation) || is_watched();
    const std::size_t examined = whole ? head.size : std::min(head.size, kept_of_request);
    if (client_->input().size() < examined)
        return false;
    if (head.id == 0)
        throw ber::Malformed("message id 0");
    const std::string_view bytes = client_->input().substr(0, examined);

    if (head.operation == LDAP_REQ_EXTENDED && take_extended(read_message(bytes))) {
        client_->consume(head.size);
        // What came in clear after a StartTLS request must not count as having come under TLS.
        if (client_->is_securing() && !client_->input().empty())
            throw ber::Malformed("a request behind StartTLS");
        return true;
    }
    if (response_to(head.operation)) {
        if (exchanges_.size() >= most_exchanges)
            throw ber::Malformed("more than " + std::to_string(most_exchanges) +
                                 " requests without an answer");
        forget(head.id);
        Exchange exchange{std::string(bytes)};
        if (!is_watched())
            exchange.request.resize(std::min(bytes.size(), kept_of_request));
        exchange.identity = identity_;
        kept_ += exchange.request.size();
        exchanges_[head.id] = std::move(exchange);
    } else if (head.operation != LDAP_REQ_ABANDON && head.operation != LDAP_REQ_UNBIND &&
               is_watched()) {
        report(head.id, read_message(bytes).operation.whole, {},
               {LDAP_PROTOCOL_ERROR, "an unknown operation", {}}, std::time(nullptr));
    }
    if (is_change(head.operation) && is_watched()) {
        begin_change(read_message(bytes));
        client_->consume(head.size);
        return true;
    }
    if (head.operation == LDAP_REQ_BIND) {
        slapd_->send(begin_bind(bytes));
        client_->consume(head.size);
        return true;
    }
    if (head.operation == LDAP_REQ_ABANDON)
        begin_abandon(read_message(bytes));
    request_rest_ = head.size;
    return true;
}

// True when the request is answered here.
bool Connection::take_extended(const Message &message)
{
    ber::Reader request(message.operation.content);
    const std::string name = request.text(LDAP_TAG_EXOP_REQ_OID);
    std::optional<std::string> value;
    if (!request.at_end())
        value = request.text(LDAP_TAG_EXOP_REQ_VALUE);
    request.finish();

    if (name == LDAP_EXOP_START_TLS)
        return start_tls(message);
    if (name == LDAP_EXOP_CANCEL)
        return cancel(message, value);
    if (!Operations::is_ours(name))
        return false;
    perform(message, name, std::move(value));
    return true;
}

void Connection::perform(const Message &message, const std::string &name,
                         std::optional<std::string> value)
{
    const Operation *operation = service_.operations.find(name);
    if (operation == nullptr || has_critical_control(message.controls)) {
        const Result refusal =
            operation == nullptr
                ? Result{LDAP_PROTOCOL_ERROR, "unknown extended operation " + name, {}}
                : Result{LDAP_UNAVAILABLE_CRITICAL_EXTENSION,
                         operation->title + ": no control is supported",
                         {}};
        send_to_client(sandbox::message(message.id, extended_response(refusal)));
        log(message.id, "extended " + name, refusal, Clock::now());
        report_extended(message.id, name, value, refusal, Clock::now());
        return;
    }
    if (calls_.count(message.id) + exchanges_.count(message.id) != 0)
        throw ber::Malformed("message id " + std::to_string(message.id) + " is in use");
    const auto call = std::make_shared<Call>(weak_from_this(), who_, message.id, *operation,
                                             std::move(value), identity_);
    calls_[message.id] = call;
    try {
        operation->handle(call);
    } catch (const ber::Malformed &error) {
        call->answer({LDAP_PROTOCOL_ERROR, operation->title + ": " + error.what(), {}});
    }
}

// StartTLS (RFC 4511, section 4.14): between the client and here; true when it is offered at all.
bool Connection::start_tls(const Message &message)
{
    if (service_.tls == nullptr)
        return false;
    Result result;
    if (client_->is_secure())
        result = {LDAP_OPERATIONS_ERROR, "TLS is in use already", {}};
    else if (!exchanges_.empty() || !calls_.empty())
        result = {LDAP_OPERATIONS_ERROR, "other operations are outstanding", {}};
    send_to_client(sandbox::message(message.id, extended_response(result, LDAP_EXOP_START_TLS)));
    log(message.id, "StartTLS", result, Clock::now());
    if (result.ok())
        client_->start_tls(*service_.tls, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->take_requests();
        });
    return true;
}

// Cancel (RFC 3909) of one of our own operations; true when it is one.
bool Connection::cancel(const Message &message, const std::optional<std::string> &value)
{
    // What is none of ours, and what cannot be read, slapd answers.
    auto found = calls_.end();
    try {
        found = calls_.find(ber::Reader(value.value_or("")).enter(ber::sequence_tag).integer());
    } catch (const ber::Malformed &) {
    }
    if (found == calls_.end())
        return false;
    const std::shared_ptr<Call> call = found->second;
    Result result;
    if (call->can_stop()) {
        answer(*call, {LDAP_CANCELLED, "cancelled by the client", {}}, {});
        call->stop();
    } else {
        result = {LDAP_CANNOT_CANCEL, call->operation().title + " cannot be cancelled", {}};
    }
    send_to_client(sandbox::message(message.id, extended_response(result)));
    report_extended(message.id, LDAP_EXOP_CANCEL, value, result, Clock::now());
    return true;
}

// A change whose result somebody wants to see in full goes on with controls that ask for it.
void Connection::begin_change(const Message &message)
{
    const std::string images =
        image_controls(message.operation, message.controls, service_.traffic->are_values_watched());
    exchanges_.at(message.id).has_images = !images.empty();
    slapd_->send(sandbox::message(message.id, message.operation.whole,
                                  std::string(message.controls).append(images)));
}

// The bind request as slapd gets it.
//
// slapd offers SASL EXTERNAL on its Unix socket and takes the gateway's own user for the client.
// A request for it goes on as one for a mechanism that does not exist, so that slapd refuses it
// and forgets the identity of an earlier bind, as after any failed bind. A bind request that
// cannot be read in full ends the connection: slapd's reader is more lenient than ours, and what
// it might understand must not pass unseen.
std::string Connection::begin_bind(std::string_view bytes)
{
    const Message message = read_message(bytes);
    ber::Reader request(message.operation.content);
    request.integer();
    request.octets();
    std::string forwarded(bytes);
    if (request.next_tag() == LDAP_AUTH_SASL) {
        // Whatever begins so: slapd stops reading at a zero byte, and ignores a "-PLUS".
        const std::string_view mechanism = request.enter(LDAP_AUTH_SASL).octets();
        constexpr std::string_view external = "EXTERNAL";
        if (mechanism.size() >= external.size() &&
            strncasecmp(mechanism.data(), external.data(), external.size()) == 0)
            forwarded.replace(static_cast<std::size_t>(mechanism.data() - bytes.data()),
                              external.size(), "DISABLED");
    } else {
        request.element();
    }
    request.finish();
    identity_.clear();
    binding_ = true;
    return forwarded;
}

void Connection::begin_abandon(const Message &message)
{
    // An AbandonRequest is a message id under a tag of its own.
    const std::string number = ber::element(ber::integer_tag, message.operation.content);
    const std::int32_t id = ber::Reader(number).integer();
    const std::size_t relayed = forget(id);
    const auto found = calls_.find(id);
    const std::shared_ptr<Call> call = found == calls_.end() ? nullptr : found->second;
    if (call) {
        calls_.erase(found);
        call->stop();
    }
    Result result;
    if (relayed == 0 && !call)
        result = {LDAP_NO_SUCH_OPERATION, "nothing to abandon", {}};
    report(message.id, message.operation.whole, message.controls, result, std::time(nullptr));
}

// How many requests of this id there were: one or none.
std::size_t Connection::forget(std::int32_t id)
{
    const auto exchange = exchanges_.find(id);
    if (exchange == exchanges_.end())
        return 0;
    kept_ -= exchange->second.request.size();
    exchanges_.erase(exchange);
    return 1;
}

// ---- From slapd to the client -----------------------------------------------------------------

void Connection::take_responses()
{
    try {
        while (is_open() && !client_->congested()) {
            if (response_rest_ > 0) {
                if (!pass_on(*slapd_, *client_, response_rest_))
                    break;
                client_->send(std::exchange(aside_, {}));
                continue;
            }
            const auto head = read_head(slapd_->input(), SIZE_MAX);
            if (!head || !take_response(*head))
                break;
        }
    } catch (const ber::Malformed &) {
        end({LDAP_UNAVAILABLE, "the directory behind the gateway sent nonsense", {}});
    }
    give_room();
    if (is_open() && !client_->congested())
        slapd_->receive();
    // A bind that has been answered, or room for answers, lets waiting requests go on.
    take_requests();
}

// False when more of the message must be here first.
bool Connection::take_response(const MessageHead &head)
{
    if (more_follow(head.operation)) {
        const auto exchange = exchanges_.find(head.id);
        if (exchange != exchanges_.end() && head.operation == LDAP_RES_SEARCH_ENTRY) {
            if (service_.traffic != nullptr && service_.traffic->are_entries_watched()) {
                const std::size_t examined = std::min(head.size, examined_of_entry);
                if (slapd_->input().size() < examined)
                    return false;
                report_entry(head.id, exchange->second, slapd_->input().substr(0, examined));
            }
            ++exchange->second.entries;
        }
        response_rest_ = head.size;
        return true;
    }
    if (slapd_->input().size() < head.size)
        return false;
    const std::string bytes(slapd_->input().substr(0, head.size));
    slapd_->consume(head.size);
    const Message message = read_message(bytes);

    if (head.id == identity_request_ && identity_request_ != 0) {
        identity_answered(message);
    } else if (head.operation == LDAP_RES_BIND) {
        bind_answered(bytes);
    } else {
        const auto exchange = exchanges_.find(head.id);
        const bool has_images = exchange != exchanges_.end() && exchange->second.has_images;
        finished(head.id, message);
        send_to_client(has_images ? sandbox::message(head.id, message.operation.whole,
                                                     without_images(message.controls))
                                  : bytes);
    }
    return true;
}

void Connection::give_room()
{
    for (const auto &[id, call] : std::map(calls_))
        if (has_room())
            call->room();
}

void Connection::bind_answered(std::string_view bytes)
{
    const Message message = read_message(bytes);
    ber::Reader response(message.operation.content);
    if (read_result(response).ok()) {
        bind_response_ = bytes;
        ask_identity();
    } else {
        finished(message.id, message);
        binding_ = false;
        send_to_client(bytes);
    }
}

void Connection::ask_identity()
{
    identity_request_ = std::numeric_limits<std::int32_t>::max();
    while (exchanges_.contains(identity_request_))
        --identity_request_;
    slapd_->send(message(identity_request_, extended_request(LDAP_EXOP_WHO_AM_I)));
}

void Connection::identity_answered(const Message &message)
{
    ber::Reader response(message.operation.content);
    const Result result = read_result(response);
    identity_request_ = 0;
    if (!result.ok() || response.next_tag() != LDAP_TAG_EXOP_RES_VALUE)
        return end({LDAP_UNAVAILABLE, "slapd does not say who has bound", {}});
    identity_ = identity_of(response.octets(LDAP_TAG_EXOP_RES_VALUE));
    binding_ = false;
    const Message bound = read_message(bind_response_);
    if (const auto bind = exchanges_.find(bound.id); bind != exchanges_.end())
        bind->second.identity = identity_;
    finished(bound.id, bound);
    send_to_client(std::exchange(bind_response_, {}));
}

void Connection::finished(std::int32_t id, const Message &message)
{
    const auto exchange = exchanges_.find(id);
    if (exchange == exchanges_.end())
        return;
    ber::Reader response(message.operation.content);
    if (service_.log)
        log(id, describe_request(exchange->second.request), read_result(response),
            exchange->second.begun, exchange->second.entries);
    if (is_watched())
        report(id, exchange->second, message);
    forget(id);
}

// ---- Our own messages -------------------------------------------------------------------------

void Connection::send_to_client(std::string_view bytes)
{
    if (response_rest_ > 0)
        aside_.append(bytes);
    else
        client_->send(bytes);
}

void Connection::answer(const Call &call, const Result &result,
                        const std::optional<std::string> &value)
{
    if (calls_.erase(call.id()) == 0)
        return;
    send_to_client(
        message(call.id(), extended_response(result, call.operation().response_name, value)));
    log(call.id(), call.operation().title, result, call.begun());
    report_extended(call.id(), call.operation().request_name, call.bytes(), result, call.begun());
}

void Connection::notify(const Call &call, std::string_view name, std::string_view value)
{
    if (calls_.contains(call.id()))
        send_to_client(message(call.id(), intermediate_response(name, value)));
}

std::shared_ptr<void> Connection::kept(const void *family) const
{
    const auto found = states_.find(family);
    return found == states_.end() ? nullptr : found->second;
}

void Connection::keep(const void *family, std::shared_ptr<void> state)
{
    if (is_open())
        states_[family] = std::move(state);
}

void Connection::log(std::int32_t id, const std::string &what, const Result &result,
                     Clock::time_point begun, std::size_t entries) const
{
    if (!service_.log)
        return;
    const auto taken = std::chrono::duration<double, std::milli>(Clock::now() - begun).count();
    std::ostringstream line;
    line.precision(1);
    line << std::fixed << who_->address << " op " << id << " " << what << ": " << result.code << " "
         << ldap_err2string(result.code);
    if (!result.diagnostic.empty())
        line << " (" << result.diagnostic << ")";
    if (entries > 0)
        line << ", " << entries << (entries == 1 ? " entry" : " entries");
    line << ", " << taken << " ms";
    service_.log(line.str());
}

// ---- Reports -----------------------------------------------------------------------------------

bool Connection::is_watched() const
{
    return service_.traffic != nullptr && service_.traffic->is_watched();
}

void Connection::report(std::int32_t id, const Exchange &exchange, const Message &answer) const
{
    ber::Header envelope;
    ber::read_header(exchange.request, envelope);
    if (exchange.request.size() < envelope.size())
        return; // it came while nobody watched, so only its beginning is here
    Message request;
    try {
        request = read_message(exchange.request);
    } catch (const ber::Malformed &) {
        return; // slapd has made something of it
    }
    ber::Reader response(answer.operation.content);
    Answered answered{who_,
                      exchange.identity,
                      id,
                      exchange.begun_at,
                      request.operation,
                      request.controls,
                      read_result(response),
                      answer.operation.content,
                      {}};
    if (exchange.has_images)
        answered.images = read_images(answer.controls);
    service_.traffic->answered(answered);
}

void Connection::report(std::int32_t id, std::string_view operation, std::string_view controls,
                        const Result &result, std::time_t begun) const
{
    if (is_watched())
        service_.traffic->answered({who_,
                                    identity_,
                                    id,
                                    begun,
                                    ber::Reader(operation).element(),
                                    controls,
                                    result,
                                    {},
                                    {}});
}

// Only the first bytes of the message need to be there.
void Connection::report_entry(std::int32_t id, const Exchange &exchange,
                              std::string_view bytes) const
{
    ber::Header header;
    ber::read_header(bytes, header);
    ber::Reader envelope(bytes.substr(header.header_size));
    envelope.integer();
    if (ber::read_header(envelope.rest(), header))
        service_.traffic->found(
            {who_, exchange.identity, id, exchange.begun_at, {}, {}, {}, {}, {}},
            envelope.rest().substr(header.header_size));
}

void Connection::report_extended(std::int32_t id, const std::string &name,
                                 const std::optional<std::string> &value, const Result &result,
                                 Clock::time_point begun) const
{
    if (!is_watched())
        return;
    const auto taken = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun);
    report(id, extended_request(name, value), {}, result,
           std::time(nullptr) - static_cast<std::time_t>(taken.count()));
}

} // namespace sandbox
