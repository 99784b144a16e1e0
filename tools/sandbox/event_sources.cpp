#include "event_sources.h"

#include "dn.h"
#include "filter_text.h"

#include "ldapx.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <set>
#include <utility>

namespace sandbox {

namespace {

// passwordModifyType: by which means.
constexpr int by_password_modify = 1; // RFC 3062
constexpr int by_modify = 2;          // a modify request that names userPassword

constexpr std::size_t longest_value = 1024; // of an extended operation's values

std::uint32_t seconds(std::time_t time)
{
    return static_cast<std::uint32_t>(time);
}

bool is_same(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// Passwords are not for monitors: that one was added or deleted is all they are told.
bool is_password(std::string_view attribute)
{
    const std::string_view type = attribute.substr(0, attribute.find(';'));
    return is_same(type, "userPassword") || type == "2.5.4.35";
}

std::vector<std::string> control_names(std::string_view controls)
{
    std::vector<std::string> names;
    ber::Reader list(controls);
    while (!list.at_end())
        names.push_back(list.enter(ber::sequence_tag).text());
    return names;
}

// A GeneralizedTime as slapd writes it: 20260101000000Z.
TimeStamp creation(const Entry &entry)
{
    std::tm time{};
    const std::string text = entry.value("createTimestamp");
    if (strptime(text.c_str(), "%Y%m%d%H%M%SZ", &time) == nullptr)
        return {};
    return {seconds(timegm(&time)), 1, 0};
}

bool is_readable(std::string_view text)
{
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; });
}

// The last number of a name: 2.16.840.1.424242.1.27.100.3 is operation 3.
int last_arc(std::string_view name)
{
    const std::string_view digits = name.substr(name.rfind('.') + 1);
    int number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

// The first values of an extended request of ours, as text. A backup's and a restore's password
// comes after the name of the entry, which is all that is told of them.
std::vector<std::string> request_values(std::string_view name, std::string_view bytes)
{
    const std::size_t most =
        name == LDAPX_BACKUP_OBJECT_REQUEST || name == LDAPX_RESTORE_OBJECT_REQUEST ? 1 : 4;
    std::vector<std::string> values;
    try {
        ber::Reader reader(bytes);
        while (!reader.at_end() && values.size() < most) {
            if (reader.next_tag() == ber::integer_tag)
                values.push_back(std::to_string(reader.integer()));
            else if (const std::string_view text = reader.octets();
                     text.size() <= longest_value && is_readable(text))
                values.emplace_back(text);
            else
                values.emplace_back();
        }
    } catch (const ber::Malformed &) {
        // What came before is worth telling.
    }
    return values;
}

const Attribute *find(const Entry &entry, std::string_view name)
{
    for (const Attribute &attribute : entry.attributes)
        if (is_same(attribute.name, name))
            return &attribute;
    return nullptr;
}

// The values of one attribute that `entry` has and `other` has not.
std::vector<std::string> values_only_in(const Attribute &attribute, const Entry &other)
{
    const Attribute *same = find(other, attribute.name);
    if (same == nullptr)
        return attribute.values;
    const std::set<std::string_view> known(same->values.begin(), same->values.end());
    std::vector<std::string> values;
    for (const std::string &value : attribute.values)
        if (!known.contains(value))
            values.push_back(value);
    return values;
}

} // namespace

// What is needed of a request until its events are out, perhaps after slapd has been asked.
struct EventSources::Kept {
    Origin origin;
    Result result;
    std::vector<std::string> controls;
    EntryImages images;

    bool has_images() const
    {
        return images.before || images.after;
    }
    const Entry *image() const
    {
        return images.before ? &*images.before : images.after ? &*images.after : nullptr;
    }
    // As slapd writes it, or else as the client did.
    std::string name(const std::string &dn) const
    {
        return image() != nullptr ? image()->dn : dn;
    }
    std::string class_name() const
    {
        return image() != nullptr ? image()->value("structuralObjectClass") : std::string();
    }
};

EventSources::EventSources(Events &events, Directory &directory)
    : events_(events), directory_(directory)
{
}

bool EventSources::is_watched() const
{
    return events_.have_monitors();
}

bool EventSources::are_entries_watched() const
{
    return events_.are_wanted(search_entry_event, LDAP_SUCCESS);
}

bool EventSources::are_values_watched() const
{
    return events_.are_wanted(value_added, LDAP_SUCCESS) ||
           events_.are_wanted(value_deleted, LDAP_SUCCESS);
}

void EventSources::connected(const std::shared_ptr<const Client> &client)
{
    if (events_.are_wanted(connection_opened, LDAP_SUCCESS))
        events_.publish({connection_opened, LDAP_SUCCESS,
                         encode_connection(*client, seconds(std::time(nullptr))), client});
}

void EventSources::disconnected(const std::shared_ptr<const Client> &client)
{
    if (events_.are_wanted(connection_closed, LDAP_SUCCESS))
        events_.publish({connection_closed, LDAP_SUCCESS,
                         encode_connection(*client, seconds(std::time(nullptr))), client});
}

void EventSources::answered(const Answered &exchange)
{
    const ber::Tag operation = exchange.operation.tag;
    const ber::Reader body(exchange.operation.content);
    const auto kept =
        std::make_shared<Kept>(Kept{{exchange.client, seconds(exchange.begun), exchange.id,
                                     seconds(std::time(nullptr)), exchange.identity},
                                    exchange.result,
                                    {},
                                    exchange.images});
    try {
        kept->controls = control_names(exchange.controls);
        switch (operation) {
        case LDAP_REQ_BIND:
            bind(kept, body);
            break;
        case LDAP_REQ_SEARCH:
            search(kept, body);
            break;
        case LDAP_REQ_COMPARE:
            compare(kept, body);
            break;
        case LDAP_REQ_ADD:
            add(kept, body);
            break;
        case LDAP_REQ_DELETE:
            remove(kept, std::string(exchange.operation.content));
            break;
        case LDAP_REQ_MODIFY:
            modify(kept, body);
            break;
        case LDAP_REQ_MODDN:
            rename(kept, body);
            break;
        case LDAP_REQ_ABANDON:
            return abandon(kept, exchange.operation.content);
        case LDAP_REQ_EXTENDED:
            extended(kept, body);
            break;
        default:
            return unknown_operation(kept);
        }
    } catch (const ber::Malformed &) {
        // slapd has said what is wrong with it, and that is an event too.
    }
    response(kept, operation, exchange.response);
}

void EventSources::found(const Answered &search, std::string_view entry)
{
    ber::Reader body(entry);
    std::string dn;
    std::vector<std::string> names;
    std::string class_name;
    try {
        dn = body.text();
        ber::Header header;
        ber::read_header(body.rest(), header);
        ber::Reader attributes(body.rest().substr(header.header_size));
        while (!attributes.at_end()) {
            ber::Reader pair = attributes.enter(ber::sequence_tag);
            names.push_back(pair.text());
            std::vector<std::string> classes;
            if (is_same(names.back(), "objectClass"))
                for (ber::Reader values = pair.enter(ber::set_tag); !values.at_end();)
                    classes.push_back(values.text());
            if (!classes.empty())
                class_name = schema_.structural_class(classes);
        }
    } catch (const ber::Malformed &) {
        // Only the beginning of a very large entry is here.
    }
    const Origin origin{search.client, seconds(search.begun), search.id,
                        seconds(std::time(nullptr)), search.identity};
    events_.publish({search_entry_event, LDAP_SUCCESS,
                     encode_search_entry(origin, dn, class_name, names), search.client,
                     search.identity, dn});
}

// ---- Operations ---------------------------------------------------------------------------------

void EventSources::publish(const Request &request, EventType type, Record record,
                           const std::string &entry)
{
    events_.publish({type, request->result.code, std::move(record), request->origin.client,
                     request->origin.bind_dn, entry});
}

void EventSources::bind(const Request &request, ber::Reader body)
{
    body.integer();
    Origin origin = request->origin;
    const std::string name = body.text();
    // A SASL bind names nobody: whom slapd took the client for shows afterwards.
    if (!name.empty() || !request->result.ok())
        origin.bind_dn = name;
    int type = body.next_tag() & 0x1f; // the number of the choice: 0 simple, 3 SASL
    std::string mechanism;
    if (body.next_tag() == LDAP_AUTH_SASL)
        mechanism = body.enter(LDAP_AUTH_SASL).text();
    if (events_.are_wanted(bind_event, request->result.code))
        publish(request, bind_event,
                encode_bind(origin, type, mechanism, request->result.code, request->controls),
                origin.bind_dn);
}

void EventSources::search(const Request &request, ber::Reader body)
{
    if (!events_.are_wanted(search_event, request->result.code))
        return;
    SearchRecord search;
    search.base = body.text();
    search.scope = body.integer(ber::enumerated_tag);
    for (int i = 0; i < 4; ++i)
        body.element(); // aliases, the two limits, whether names only
    const ber::Element filter = body.element();
    try {
        search.filter = filter_text(filter);
    } catch (const ber::Malformed &) {
        // A search without a filter that can be shown is still a search.
    }
    ber::Reader attributes = body.enter(ber::sequence_tag);
    while (!attributes.at_end())
        search.attributes.push_back(attributes.text());
    search.controls = request->controls;
    publish(request, search_event, encode_search(request->origin, search, request->result.code),
            search.base);
}

void EventSources::compare(const Request &request, ber::Reader body)
{
    if (!events_.are_wanted(compare_event, request->result.code))
        return;
    CompareRecord compare;
    compare.dn = body.text();
    ber::Reader assertion = body.enter(ber::sequence_tag);
    compare.type = assertion.text();
    compare.value = assertion.text();
    if (is_password(compare.type))
        compare.value.clear();
    with_class(request, compare.dn, [this, request, compare](const std::string &class_name) {
        CompareRecord complete = compare;
        complete.class_name = class_name;
        publish(request, compare_event,
                encode_compare(request->origin, complete, request->result.code), compare.dn);
    });
}

void EventSources::abandon(const Request &request, std::string_view body)
{
    const std::string number = ber::element(ber::integer_tag, body);
    if (events_.are_wanted(abandon_event, request->result.code))
        publish(
            request, abandon_event,
            encode_abandon(request->origin, ber::Reader(number).integer(), request->result.code),
            {});
}

void EventSources::extended(const Request &request, ber::Reader body)
{
    const std::string name = body.text(LDAP_TAG_EXOP_REQ_OID);
    const std::string_view value =
        body.at_end() ? std::string_view() : body.octets(LDAP_TAG_EXOP_REQ_VALUE);
    const int code = request->result.code;
    if (Operations::is_ours(name)) {
        if (events_.are_wanted(system_extended_event, code))
            publish(request, system_extended_event,
                    encode_system_extended(request->origin, last_arc(name), name,
                                           request_values(name, value), code),
                    {});
        return;
    }
    if (events_.are_wanted(extended_event, code))
        publish(request, extended_event, encode_extended(request->origin, name, code), {});
    if (name != LDAP_EXOP_MODIFY_PASSWD)
        return;
    std::string dn = request->origin.bind_dn;
    if (!value.empty()) {
        ber::Reader fields = ber::Reader(value).enter(ber::sequence_tag);
        if (fields.next_tag() == LDAP_TAG_EXOP_MODIFY_PASSWD_ID)
            dn = identity_of(fields.octets(LDAP_TAG_EXOP_MODIFY_PASSWD_ID));
    }
    password_change(request, dn, by_password_modify);
    if (request->result.ok() && events_.are_wanted(entry_modified, code))
        with_class(request, dn, [this, request, dn](const std::string &class_name) {
            entry_changed(request, entry_modified, dn, class_name);
        });
}

void EventSources::password_change(const Request &request, std::string dn, int type)
{
    if (events_.are_wanted(password_event, request->result.code))
        publish(request, password_event,
                encode_password(request->origin, dn, type, request->result.code), dn);
}

void EventSources::response(const Request &request, ber::Tag operation, std::string_view answer)
{
    if (!events_.are_wanted(response_event, request->result.code))
        return;
    std::vector<std::string> referrals;
    if (!answer.empty()) {
        ber::Reader reader(answer);
        read_result(reader);
        if (reader.next_tag() == LDAP_TAG_REFERRAL)
            for (ber::Reader list = reader.enter(LDAP_TAG_REFERRAL); !list.at_end();)
                referrals.push_back(list.text());
    }
    publish(request, response_event,
            encode_response(request->origin, operation, request->result.code,
                            request->result.matched_dn, referrals),
            {});
}

void EventSources::unknown_operation(const Request &request)
{
    if (request->origin.client && events_.are_wanted(unknown_operation_event, request->result.code))
        publish(request, unknown_operation_event,
                encode_unknown_operation(*request->origin.client, request->origin.time), {});
}

// ---- Changes ------------------------------------------------------------------------------------

void EventSources::add(const Request &request, ber::Reader body)
{
    const std::string dn = request->name(body.text());
    std::vector<Attribute> attributes;
    std::vector<std::string> classes;
    for (ber::Reader list = body.enter(ber::sequence_tag); !list.at_end();) {
        ber::Reader pair = list.enter(ber::sequence_tag);
        Attribute attribute{pair.text(), {}};
        for (ber::Reader values = pair.enter(ber::set_tag); !values.at_end();)
            attribute.values.push_back(values.text());
        if (is_same(attribute.name, "objectClass"))
            classes = attribute.values;
        attributes.push_back(std::move(attribute));
    }
    const std::string class_name = schema_.structural_class(classes);
    update(request, add_event, LDAP_REQ_ADD, dn, class_name);
    if (!request->result.ok())
        return;
    entry_changed(request, entry_added, dn, class_name);
    for (const Attribute &attribute : attributes)
        values_changed(request, value_added, dn, class_name, attribute.name, attribute.values);
}

// A deleted entry takes its values with it: no event for each of them.
void EventSources::remove(const Request &request, const std::string &dn)
{
    const std::string name = request->name(dn);
    const auto tell = [this, request, name](const std::string &class_name) {
        update(request, delete_event, LDAP_REQ_DELETE, name, class_name);
        if (request->result.ok())
            entry_changed(request, entry_deleted, name, class_name);
    };
    if (request->result.ok())
        tell(request->class_name());
    else
        with_class(request, name, tell);
}

void EventSources::modify(const Request &request, ber::Reader body)
{
    const std::string dn = request->name(body.text());
    std::vector<Change> changes;
    for (ber::Reader list = body.enter(ber::sequence_tag); !list.at_end();) {
        ber::Reader each = list.enter(ber::sequence_tag);
        Change change;
        change.operation = each.integer(ber::enumerated_tag);
        ber::Reader pair = each.enter(ber::sequence_tag);
        change.attribute = pair.text();
        for (ber::Reader values = pair.enter(ber::set_tag); !values.at_end();)
            change.values.push_back(values.text());
        changes.push_back(std::move(change));
    }
    const bool touches_password =
        std::any_of(changes.begin(), changes.end(),
                    [](const Change &change) { return is_password(change.attribute); });
    if (touches_password)
        password_change(request, dn, by_modify);
    with_class(request, dn, [this, request, dn, changes](const std::string &class_name) {
        update(request, modify_event, LDAP_REQ_MODIFY, dn, class_name);
        if (!request->result.ok())
            return;
        entry_changed(request, entry_modified, dn, class_name);
        if (request->has_images())
            return compare_images(request, dn, class_name);
        // The client has asked for images itself: what the request names must do.
        for (const Change &change : changes)
            values_changed(request,
                           change.operation == LDAP_MOD_DELETE ? value_deleted : value_added, dn,
                           class_name, change.attribute, change.values);
    });
}

void EventSources::rename(const Request &request, ber::Reader body)
{
    const std::string asked = body.text();
    const std::string new_rdn = body.text();
    body.boolean();
    const bool has_superior = body.next_tag() == LDAP_TAG_NEWSUPERIOR;
    const std::string superior = has_superior ? body.text(LDAP_TAG_NEWSUPERIOR) : parent_of(asked);
    const std::string dn = request->name(asked);
    const std::string new_dn = request->images.after
                                   ? request->images.after->dn
                                   : new_rdn + (superior.empty() ? "" : ",") + superior;
    const bool moves = has_superior && normalised_dn(superior) != normalised_dn(parent_of(asked));
    const std::string present = request->result.ok() ? new_dn : dn;
    with_class(request, present, [=, this](const std::string &class_name) {
        if (events_.are_wanted(rename_event, request->result.code))
            publish(request, rename_event,
                    encode_rename(request->origin, rdn_of(dn), new_rdn, class_name,
                                  request->result.code, request->controls),
                    dn);
        if (!request->result.ok())
            return;
        entry_changed(request, moves ? entry_moved : entry_renamed, dn, class_name, new_dn);
        compare_images(request, new_dn, class_name);
    });
}

void EventSources::update(const Request &request, EventType type, ber::Tag operation,
                          const std::string &dn, const std::string &class_name)
{
    if (events_.are_wanted(type, request->result.code))
        publish(request, type,
                encode_update(request->origin, operation, dn, class_name, request->result.code,
                              request->controls),
                dn);
}

void EventSources::entry_changed(const Request &request, EventType type, const std::string &dn,
                                 const std::string &class_name, const std::string &new_dn)
{
    if (!events_.are_wanted(type, LDAP_SUCCESS))
        return;
    const TimeStamp created = request->image() != nullptr ? creation(*request->image())
                              : type == entry_added       ? stamp()
                                                          : TimeStamp();
    publish(request, type,
            encode_entry(type, {request->origin.bind_dn, dn, class_name, created, new_dn}), dn);
}

void EventSources::values_changed(const Request &request, EventType type, const std::string &dn,
                                  const std::string &class_name, const std::string &attribute,
                                  const std::vector<std::string> &values)
{
    if (!events_.are_wanted(type, LDAP_SUCCESS))
        return;
    for (const std::string &value : values)
        publish(request, type,
                encode_value(type,
                             {request->origin.bind_dn, dn, attribute, schema_.syntax_of(attribute),
                              class_name, stamp(), is_password(attribute) ? std::string() : value}),
                dn);
}

// What a change did to the values, whatever it was called: what is there no longer, and what was
// not there before.
void EventSources::compare_images(const Request &request, const std::string &dn,
                                  const std::string &class_name)
{
    if (!request->images.before || !request->images.after)
        return;
    const Entry &before = *request->images.before;
    const Entry &after = *request->images.after;
    for (const Attribute &attribute : before.attributes)
        values_changed(request, value_deleted, dn, class_name, attribute.name,
                       values_only_in(attribute, after));
    for (const Attribute &attribute : after.attributes)
        values_changed(request, value_added, dn, class_name, attribute.name,
                       values_only_in(attribute, before));
}

// The entry's class, from its image or by asking slapd for it. slapd may answer in another order
// than it was asked in.
void EventSources::with_class(const Request &request, const std::string &dn, UseClass use)
{
    if (request->has_images())
        return use(request->class_name());
    directory_.read(as_administrator, dn, {"structuralObjectClass"},
                    [this, place = events_.reserve(), use = std::move(use)](const Result &,
                                                                            const Entry &entry) {
                        events_.fill(place,
                                     [use, class_name = entry.value("structuralObjectClass")] {
                                         use(class_name);
                                     });
                    });
}

TimeStamp EventSources::stamp()
{
    const std::uint32_t now = seconds(std::time(nullptr));
    last_stamp_ = {now, 1, last_stamp_.seconds == now ? last_stamp_.event + 1 : 0};
    return last_stamp_;
}

} // namespace sandbox
