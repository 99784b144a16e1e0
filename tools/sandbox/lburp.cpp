#include "lburp.h"

#include "ldapx.h"
#include "update_order.h"

#include <deque>
#include <map>
#include <utility>
#include <vector>

namespace sandbox {

namespace {

// Enough to keep slapd's threads busy; more would only wait there.
constexpr std::size_t most_under_way = 32;
constexpr std::size_t most_bytes_under_way = 1024 * 1024;
constexpr std::int64_t most_early = 1000;

// One operation of a batch. It points into the request value, which its call keeps.
struct Update {
    ber::Element operation;
    std::string_view controls;
};

void check_values(ber::Reader attribute)
{
    attribute.octets();
    ber::Reader values = attribute.enter(ber::set_tag);
    attribute.finish();
    while (!values.at_end())
        values.octets();
}

void check_add(ber::Reader request)
{
    request.octets();
    ber::Reader attributes = request.enter(ber::sequence_tag);
    request.finish();
    while (!attributes.at_end())
        check_values(attributes.enter(ber::sequence_tag));
}

void check_modify(ber::Reader request)
{
    request.octets();
    ber::Reader changes = request.enter(ber::sequence_tag);
    request.finish();
    while (!changes.at_end()) {
        ber::Reader change = changes.enter(ber::sequence_tag);
        change.integer(ber::enumerated_tag);
        check_values(change.enter(ber::sequence_tag));
        change.finish();
    }
}

void check_rename(ber::Reader request)
{
    request.octets();
    request.octets();
    request.boolean();
    if (!request.at_end())
        request.octets(request.next_tag() == ber::octets_tag ? ber::octets_tag
                                                             : ber::Tag{LDAP_TAG_NEWSUPERIOR});
    request.finish();
}

// A search filter (RFC 4511, section 4.5.1.7), which an assertion control carries.
void check_filter(ber::Reader &reader, int depth = 0)
{
    constexpr int deepest = 100;
    if (depth > deepest)
        throw ber::Malformed("a filter is nested too deeply");
    const ber::Element filter = reader.element();
    ber::Reader inside(filter.content);
    switch (filter.tag) {
    case LDAP_FILTER_AND:
    case LDAP_FILTER_OR:
        while (!inside.at_end())
            check_filter(inside, depth + 1);
        break;
    case LDAP_FILTER_NOT:
        check_filter(inside, depth + 1);
        break;
    case LDAP_FILTER_EQUALITY:
    case LDAP_FILTER_GE:
    case LDAP_FILTER_LE:
    case LDAP_FILTER_APPROX:
        inside.octets();
        inside.octets();
        break;
    case LDAP_FILTER_SUBSTRINGS: {
        inside.octets();
        ber::Reader parts = inside.enter(ber::sequence_tag);
        while (!parts.at_end())
            parts.element();
        break;
    }
    case LDAP_FILTER_PRESENT:
        return;
    case LDAP_FILTER_EXT:
        for (const ber::Tag tag : {ber::Tag{LDAP_FILTER_EXT_OID}, ber::Tag{LDAP_FILTER_EXT_TYPE}})
            if (inside.next_tag() == tag)
                inside.element();
        inside.octets(LDAP_FILTER_EXT_VALUE);
        if (!inside.at_end())
            inside.boolean(LDAP_FILTER_EXT_DNATTRS);
        break;
    default:
        throw ber::Malformed("an unknown kind of filter");
    }
    inside.finish();
}

void check_controls(ber::Reader controls)
{
    while (!controls.at_end()) {
        ber::Reader control = controls.enter(ber::sequence_tag);
        const std::string_view type = control.octets();
        if (control.next_tag() == ber::boolean_tag)
            control.boolean();
        if (!control.at_end()) {
            ber::Reader value(control.octets());
            if (type == LDAP_CONTROL_ASSERT && !value.at_end())
                check_filter(value);
        }
        control.finish();
    }
}

// slapd ends a connection that sends what it cannot read, and this one carries everybody's
// operations: every byte is looked at before.
Update read_update(ber::Reader element)
{
    Update update{element.element(), {}};
    switch (update.operation.tag) {
    case LDAP_REQ_ADD:
        check_add(ber::Reader(update.operation.content));
        break;
    case LDAP_REQ_MODIFY:
        check_modify(ber::Reader(update.operation.content));
        break;
    case LDAP_REQ_MODDN:
        check_rename(ber::Reader(update.operation.content));
        break;
    case LDAP_REQ_DELETE:
        break;
    default:
        throw ber::Malformed("it is no add, delete, modify or rename");
    }
    if (!element.at_end())
        update.controls = element.octets(LDAP_TAG_CONTROLS);
    element.finish();
    check_controls(ber::Reader(update.controls));
    return update;
}

// The request as slapd takes it.
std::string for_slapd(const ber::Element &operation)
{
    if (operation.tag != LDAP_REQ_MODDN)
        return std::string(operation.whole);
    ber::Reader request(operation.content);
    const std::string_view dn = request.octets();
    const std::string_view new_rdn = request.octets();
    const bool delete_old = request.boolean();
    std::string superior;
    if (!request.at_end()) {
        const std::string_view name = request.element().content;
        if (name != new_rdn)
            superior = ber::octets(name, LDAP_TAG_NEWSUPERIOR);
    }
    return ber::constructed(LDAP_REQ_MODDN, ber::octets(dn), ber::octets(new_rdn),
                            ber::boolean(delete_old), superior);
}

Result out_of_order(const std::string &why)
{
    return {LDAP_OPERATIONS_ERROR, "bulk update: " + why, {}};
}

struct Batch {
    std::shared_ptr<Call> call;
    Behalf behalf;
    std::int64_t number;
    std::vector<Update> updates;
    std::size_t size;
    std::size_t begun = 0;
    std::size_t done = 0;
    std::map<std::size_t, Result> failed{}; // by the number of the operation

    bool is_done() const
    {
        return done == updates.size();
    }
};

Batch read_batch(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::size_t size = value.rest().size();
    ber::Reader request = value.enter(ber::sequence_tag);
    value.finish();
    const Behalf behalf = call->behalf();
    Batch batch{std::move(call), behalf, request.integer(), {}, size};
    while (!request.at_end()) {
        try {
            batch.updates.push_back(read_update(request.enter(ber::sequence_tag)));
        } catch (const ber::Malformed &error) {
            throw ber::Malformed("operation " + std::to_string(batch.updates.size() + 1) +
                                 " of batch " + std::to_string(batch.number) + ": " + error.what());
        }
    }
    return batch;
}

void answer(const Batch &batch)
{
    if (batch.failed.empty())
        return batch.call->answer({});
    std::string list;
    for (const auto &[number, result] : batch.failed)
        list += ber::sequence(ber::integer(static_cast<std::int64_t>(number)),
                              ber::sequence(result_elements(result)));
    batch.call->answer({LDAP_OTHER,
                        std::to_string(batch.failed.size()) + " of " +
                            std::to_string(batch.updates.size()) + " operations failed",
                        {}},
                       list);
}

} // namespace

// A client's open bulk update. It belongs to the client's connection, so what slapd has not been
// asked yet when the client leaves is never asked.
class BulkUpdates::Session : public std::enable_shared_from_this<Session> {
public:
    Session(Directory &directory, const std::string &groups, BulkUpdateLimits limits)
        : directory_(directory), limits_(limits), under_way_(groups)
    {
    }

    bool is_open() const
    {
        return open_;
    }
    void take(const std::shared_ptr<Call> &call);
    void end(const std::shared_ptr<Call> &call, std::int64_t number);

private:
    using Running = std::shared_ptr<Batch>;

    Result refusal(const Batch &batch) const;
    void advance();
    bool begin_next(const Running &batch);
    void finished(const Running &batch, std::size_t number, const Footprint &names,
                  std::size_t size, const ber::Element &response);
    void retire(const Running &batch);

    Directory &directory_;
    BulkUpdateLimits limits_;
    UnderWay under_way_;
    std::size_t bytes_under_way_ = 0;
    bool open_ = true;

    std::int64_t next_ = 1;               // the batch whose turn it is to become ready
    std::map<std::int64_t, Batch> early_; // batches that came before it
    std::deque<Running> ready_;           // to be begun, in order
    std::size_t running_ = 0;             // batches that are not done
    std::size_t waiting_ = 0;             // bytes of batches that are not done
    std::shared_ptr<Call> end_;
};

void BulkUpdates::Session::take(const std::shared_ptr<Call> &call)
{
    Batch batch = read_batch(call);
    if (const Result result = refusal(batch); !result.ok())
        return call->answer(result);
    waiting_ += batch.size;
    const std::int64_t number = batch.number;
    early_.emplace(number, std::move(batch));
    while (!early_.empty() && early_.begin()->first == next_) {
        ready_.push_back(std::make_shared<Batch>(std::move(early_.begin()->second)));
        early_.erase(early_.begin());
        ++next_;
        ++running_;
        if (ready_.back()->is_done())
            retire(ready_.back()); // an empty one
    }
    advance();
}

Result BulkUpdates::Session::refusal(const Batch &batch) const
{
    const std::string name = "batch " + std::to_string(batch.number);
    if (end_)
        return out_of_order(name + " comes after the end");
    if (batch.number < 1)
        return out_of_order("batches are numbered from 1");
    if (batch.number < next_ || early_.contains(batch.number))
        return out_of_order(name + " has come already");
    if (batch.number > next_ + most_early)
        return out_of_order(name + " comes too early: the next one is " + std::to_string(next_));
    if (batch.updates.size() > static_cast<std::size_t>(limits_.transaction_size))
        return {LDAP_ADMINLIMIT_EXCEEDED,
                name + " has " + std::to_string(batch.updates.size()) +
                    " operations, more than the transaction size of " +
                    std::to_string(limits_.transaction_size),
                {}};
    if (waiting_ > 0 && waiting_ + batch.size > limits_.waiting)
        return {LDAP_BUSY,
                name + " would make more than " + std::to_string(limits_.waiting) +
                    " bytes wait: await answers before sending more",
                {}};
    return {};
}

// Begins whatever may begin.
void BulkUpdates::Session::advance()
{
    while (!ready_.empty()) {
        const Running batch = ready_.front();
        while (batch->begun < batch->updates.size())
            if (!begin_next(batch))
                return;
        ready_.pop_front();
    }
    if (end_ && running_ == 0) {
        open_ = false;
        std::exchange(end_, {})->answer({});
    }
}

// False when it has to wait for one that is under way.
bool BulkUpdates::Session::begin_next(const Running &batch)
{
    const Update &update = batch->updates[batch->begun];
    const std::size_t size = update.operation.whole.size();
    if (under_way_.count() == most_under_way ||
        (under_way_.count() > 0 && bytes_under_way_ + size > most_bytes_under_way))
        return false;
    const std::string operation = for_slapd(update.operation);
    Footprint names = footprint(ber::Reader(operation).element());
    if (!under_way_.admits(names))
        return false;
    under_way_.begin(names);
    bytes_under_way_ += size;
    const std::size_t number = ++batch->begun;
    directory_.send(batch->behalf, operation, update.controls,
                    [weak = weak_from_this(), batch, number, names = std::move(names),
                     size](const ber::Element &response) {
                        if (const auto self = weak.lock())
                            self->finished(batch, number, names, size, response);
                    });
    return true;
}

void BulkUpdates::Session::finished(const Running &batch, std::size_t number,
                                    const Footprint &names, std::size_t size,
                                    const ber::Element &response)
{
    // An extension of slapd may announce something before it answers.
    if (more_follow(response.tag))
        return;
    under_way_.end(names);
    bytes_under_way_ -= size;
    ber::Reader reader(response.content);
    Result result = read_result(reader);
    if (!result.ok())
        batch->failed.emplace(number, std::move(result));
    ++batch->done;
    if (batch->is_done())
        retire(batch);
    advance();
}

void BulkUpdates::Session::retire(const Running &batch)
{
    --running_;
    waiting_ -= batch->size;
    answer(*batch);
}

void BulkUpdates::Session::end(const std::shared_ptr<Call> &call, std::int64_t number)
{
    if (end_)
        return call->answer(out_of_order("its end has come already"));
    if (!early_.empty()) {
        const std::string why =
            "batch " + std::to_string(next_) + ", which comes before it, is missing";
        for (const auto &[waiting, batch] : std::exchange(early_, {})) {
            waiting_ -= batch.size;
            batch.call->answer(out_of_order(why));
        }
        return call->answer(out_of_order(why));
    }
    if (number != next_)
        return call->answer(out_of_order("it ends with number " + std::to_string(next_) +
                                         ", the one after the last batch, not with " +
                                         std::to_string(number)));
    end_ = call;
    advance();
}

BulkUpdates::BulkUpdates(Directory &directory, const std::string &base, BulkUpdateLimits limits)
    : directory_(directory), groups_("ou=groups," + base), limits_(limits)
{
}

void BulkUpdates::offer(Operations &operations)
{
    const auto add = [&](const char *request, const char *response, const char *title,
                         void (BulkUpdates::*method)(std::shared_ptr<Call>)) {
        operations.add({request, response, title, [this, method](std::shared_ptr<Call> call) {
                            (this->*method)(std::move(call));
                        }});
    };
    add(LDAPX_LBURP_START_REQUEST, LDAPX_LBURP_START_RESPONSE, "start bulk update",
        &BulkUpdates::start);
    add(LDAPX_LBURP_OPERATION_REQUEST, LDAPX_LBURP_OPERATION_RESPONSE, "bulk update",
        &BulkUpdates::update);
    add(LDAPX_LBURP_END_REQUEST, LDAPX_LBURP_END_RESPONSE, "end bulk update", &BulkUpdates::end);
}

// The client's open bulk update, if it has one.
std::shared_ptr<BulkUpdates::Session> BulkUpdates::session_of(const Call &call) const
{
    const auto session = std::static_pointer_cast<Session>(call.kept(this));
    return session && session->is_open() ? session : nullptr;
}

// SEQUENCE { OCTET STRING update style }, answered with SEQUENCE { INTEGER transaction size }.
void BulkUpdates::start(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    ber::Reader request = value.enter(ber::sequence_tag);
    const std::string style = request.text();
    request.finish();
    value.finish();
    if (call->identity().empty())
        return call->answer({LDAP_INSUFFICIENT_ACCESS,
                             "bulk updates are not for anonymous clients: bind first",
                             {}});
    if (style != LDAPX_LBURP_INCREMENTAL_UPDATE)
        return call->answer({LDAP_UNWILLING_TO_PERFORM,
                             "the only style of update is " LDAPX_LBURP_INCREMENTAL_UPDATE,
                             {}});
    if (session_of(*call))
        return call->answer(out_of_order("one is open on this connection already"));
    call->keep(this, std::make_shared<Session>(directory_, groups_, limits_));
    call->answer({}, ber::sequence(ber::integer(limits_.transaction_size)));
}

// SEQUENCE { INTEGER sequence number, operations ... }
void BulkUpdates::update(std::shared_ptr<Call> call)
{
    const auto session = session_of(*call);
    if (!session)
        return call->answer(out_of_order("none is open on this connection: start one first"));
    session->take(call);
}

// SEQUENCE { INTEGER sequence number }
void BulkUpdates::end(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    ber::Reader request = value.enter(ber::sequence_tag);
    const std::int32_t number = request.integer();
    request.finish();
    value.finish();
    const auto session = session_of(*call);
    if (!session)
        return call->answer(out_of_order("none is open on this connection: start one first"));
    session->end(call, number);
}

} // namespace sandbox
