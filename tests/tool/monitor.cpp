#include "monitor.h"

#include <stdexcept>

#ifdef WITH_ADDRESS_SANITIZER
#    include <sanitizer/lsan_interface.h>
#endif

namespace sandbox_test {

// The library does not release the first address of a referral list; whoever wants no leak does.
void FreeEvent::operator()(void *record) const
{
    if (static_cast<const ber_tag_t *>(record)[-1] == EVT_TAG_SEV_INFO) {
        const auto *event = static_cast<const EVT_SEVInfo *>(record);
        if (event->referralCount > 0)
            ldapx_memfree(event->referrals[0].address);
    }
    ldap_event_free(record);
}

namespace {

using Message = std::unique_ptr<LDAPMessage, int (*)(LDAPMessage *)>;

timeval as_timeval(std::chrono::milliseconds time)
{
    return {time.count() / 1000, static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

// A request of this session is answered after everything that was sent to it before.
void wait_for_sandbox(const Session &session)
{
    berval *identity = nullptr;
    if (const int code = ldap_whoami_s(session.get(), &identity, nullptr, nullptr);
        code != LDAP_SUCCESS)
        throw std::runtime_error(std::string("whoami: ") + ldap_err2string(code));
    ber_bvfree(identity);
}

// Nor does it release the name of the closing response, which nobody else can.
struct StatedLeak {
#ifdef WITH_ADDRESS_SANITIZER
    __lsan::ScopedDisabler disabled;
#else
    StatedLeak() {}
#endif
};

Closing read_closing(LDAP *ld, LDAPMessage *message)
{
    Closing closing;
    char *text = nullptr;
    int count = 0;
    EVT_EventSpecifier *rejected = nullptr;
    const StatedLeak leak;
    if (const int code = ldap_parse_monitor_events_response(ld, message, &closing.code, &text,
                                                            &count, &rejected, 0);
        code != LDAP_SUCCESS)
        throw std::runtime_error(std::string("closing response: ") + ldapx_err2string(code));
    closing.diagnostic = text != nullptr ? text : "";
    for (int i = 0; i < count; ++i)
        closing.rejected.emplace_back(rejected[i].eventType, rejected[i].eventStatus);
    ldap_memfree(text);
    ldapx_memfree(rejected);
    return closing;
}

} // namespace

Monitor::Monitor(Session session, std::vector<Specifier> specifiers, bool filtered)
    : session_(std::move(session))
{
    std::vector<EVT_EventSpecifier> plain;
    std::vector<EVT_FilteredEventSpecifier> with_filters;
    for (Specifier &each : specifiers) {
        plain.push_back({each.type, each.status});
        with_filters.push_back({each.type, each.status, each.filter.data()});
    }
    const int count = static_cast<int>(specifiers.size());
    const int code =
        filtered ? ldap_monitor_events_filtered(session_.get(), count, with_filters.data(), &id_)
                 : ldap_monitor_events(session_.get(), count, plain.data(), &id_);
    if (code != LDAP_SUCCESS)
        throw std::runtime_error(std::string("monitor: ") + ldapx_err2string(code));
    wait_for_sandbox(session_);
}

Event Monitor::next(std::chrono::milliseconds patience)
{
    Event event;
    LDAPMessage *raw = nullptr;
    timeval timeout = as_timeval(patience);
    if (closing_ || ldap_result(session_.get(), id_, LDAP_MSG_ONE, &timeout, &raw) <= 0)
        return event;
    const Message message(raw, ldap_msgfree);
    if (ldap_msgtype(raw) != LDAP_RES_INTERMEDIATE) {
        closing_ = read_closing(session_.get(), raw);
        return event;
    }
    void *record = nullptr;
    void *address = nullptr;
    const int code = ldap_parse_ds_event_IP(session_.get(), raw, &event.type, &event.result,
                                            &record, 0, &address);
    event.record.reset(record);
    event.address.reset(address);
    if (code != LDAP_SUCCESS)
        throw std::runtime_error("event " + std::to_string(event.type) + ": " +
                                 ldapx_err2string(code));
    return event;
}

Event Monitor::next(int type)
{
    Event event = next();
    while (event.type != -1 && event.type != type)
        event = next();
    return event;
}

std::vector<Event> Monitor::all()
{
    // Events come in order: when a new registration has been told of itself (type 20), nothing
    // older is on its way any more.
    EVT_EventSpecifier beginning{20, 0};
    int marker = 0;
    LDAPMessage *raw = nullptr;
    timeval patience{10, 0};
    if (ldap_monitor_events(session_.get(), 1, &beginning, &marker) != LDAP_SUCCESS ||
        ldap_result(session_.get(), marker, LDAP_MSG_ONE, &patience, &raw) != LDAP_RES_INTERMEDIATE)
        throw std::runtime_error("monitor: a registration is not told of itself");
    ldap_msgfree(raw);
    std::vector<Event> events;
    for (Event event = next(std::chrono::milliseconds(0)); event.type != -1;
         event = next(std::chrono::milliseconds(0)))
        events.push_back(std::move(event));
    return events;
}

std::optional<Closing> Monitor::closing(std::chrono::milliseconds patience)
{
    while (!closing_ && next(patience).type != -1) {
    }
    return closing_;
}

} // namespace sandbox_test
