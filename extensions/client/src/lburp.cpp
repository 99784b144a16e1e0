// Bulk update (LBURP): start and end, batches of updates, and their responses.

#include "frame.h"

#include <cstdlib>

using namespace greirige;

namespace {

void require_name(CallFrame &call, const char *responseName) noexcept
{
    if (call.err == LDAP_SUCCESS && !same_name(call.returnedOID, responseName))
        call.err = LDAPX_NOT_SUPPORTED;
}

// The encoders append to an element of the caller's.
CallFrame append_to(BerElement *ber) noexcept
{
    CallFrame element;
    element.requestber = ber;
    return element;
}

// An encoder that fails releases the element that it was given, the caller's: programs that use
// the encoders alone rely on it and do not release the element themselves.
int finish(const CallFrame &element) noexcept
{
    if (element.err != LDAP_SUCCESS)
        ber_free(element.requestber, 1);
    return element.err;
}

// [0] SEQUENCE OF SEQUENCE { OCTET STRING oid, BOOLEAN criticality DEFAULT FALSE, OCTET STRING
// value OPTIONAL }, as in an LDAP message. Each encoder has its own mixture of "N}" and "}":
// "N" is the BER layer's debugging NULL, which writes nothing unless that layer is told to.
void encode_controls(CallFrame &element, LDAPControl **controls, const char *endControl,
                     const char *endControls) noexcept
{
    if (controls == nullptr)
        return;
    encode(element, "t{", LDAP_TAG_CONTROLS);
    for (; *controls != nullptr; ++controls) {
        const LDAPControl &control = **controls;
        encode(element, "{s", control.ldctl_oid);
        if (control.ldctl_iscritical != 0)
            encode(element, "b", static_cast<ber_int_t>(control.ldctl_iscritical));
        if (control.ldctl_value.bv_val != nullptr)
            encode(element, "O", &control.ldctl_value);
        encode(element, endControl);
    }
    encode(element, endControls);
}

// One record of a batch, by its operation's encoder.
void encode_operation(CallFrame &call, LDAP *ld, const LBURPUpdateOperationList &op) noexcept
{
    switch (static_cast<ber_tag_t>(op.operation)) {
    case LDAP_REQ_ADD:
        call.err = LBURPEncodeAdd(ld, op.dn, op.value.attrs, op.ServerControls, call.requestber);
        break;
    case LDAP_REQ_DELETE:
        call.err = LBURPEncodeDelete(ld, op.dn, op.ServerControls, call.requestber);
        break;
    case LDAP_REQ_MODIFY:
        call.err = LBURPEncodeMod(ld, op.dn, op.value.attrs, op.ServerControls, call.requestber);
        break;
    case LDAP_REQ_MODDN:
        // The three values overlay one another in the record, so the new superior is the new RDN
        // once more and delete-old-RDN the low half of its address. The record's layout is
        // published and every peer has seen this form, so neither changes.
        call.err = LBURPEncodeModRDN(ld, op.dn, op.value.newRDN, op.value.newSuperior,
                                     op.value.deleteOldRDN, op.ServerControls, call.requestber);
        break;
    default:
        call.err = LDAPX_NOT_SUPPORTED;
        return;
    }
    if (call.err != LDAP_SUCCESS)
        call.requestber = nullptr; // the encoder has released it
}

// SEQUENCE { INTEGER packageID, SEQUENCE { resultCode, OCTET STRING matchedDN, OCTET STRING
// errorMsg } } over and over. The headers are passed over and their lengths not used. The array
// always has one slot more than *count, into which the next element is read. Callers who can get a
// value must give both pointers, as the manual says: neither is tested.
// NOLINTBEGIN(clang-analyzer-core.NullDereference)
void read_failed_operations(CallFrame &call, int *count, LBURPUpdateResult **failed) noexcept
{
    open_value(call);
    if (call.err != LDAP_SUCCESS)
        return;
    *failed = static_cast<LBURPUpdateResult *>(std::malloc(sizeof **failed));
    if (*failed == nullptr)
        call.err = LDAPX_NO_MEMORY;

    while (call.err == LDAP_SUCCESS && unread_bytes(call.returnedber) != 0) {
        LBURPUpdateResult *slot = &(*failed)[*count];
        decode(call, "{");
        expect(call, LBER_INTEGER); // a list wrapped in a SEQUENCE of its own is refused
        decode(call, "i", &slot->packageID);
        // A value may end right after a packageID: that element is dropped, and what came before
        // it is the list.
        if (call.err != LDAP_SUCCESS || unread_bytes(call.returnedber) == 0)
            break;

        char *matchedDN = nullptr;
        decode(call, "{iaa", &slot->resultCode, &matchedDN, &slot->errorMsg);
        if (call.err != LDAP_SUCCESS)
            break;
        ldap_memfree(matchedDN);

        ++*count;
        void *grown =
            std::realloc(*failed, (static_cast<std::size_t>(*count) + 1) * sizeof **failed);
        if (grown == nullptr)
            call.err = LDAPX_NO_MEMORY;
        else
            *failed = static_cast<LBURPUpdateResult *>(grown);
    }
}
// NOLINTEND(clang-analyzer-core.NullDereference)

} // namespace

int ldap_lburp_start_request(LDAP *ld, int *msgID) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "{s}", LDAPX_LBURP_INCREMENTAL_UPDATE);
    send_request(call, ld, LDAPX_LBURP_START_REQUEST, msgID);
    return end_and_store(call, ld);
}

int ldap_parse_lburp_start_response(LDAP *ld, LDAPMessage *lburpStartMessage, int *resultCode,
                                    char **errorMsg, int *tranSize, int freeIt) noexcept
{
    CallFrame call;
    call.undecodable = LDAPX_DECODING_ERROR;
    read_response(call, ld, lburpStartMessage, resultCode, errorMsg, freeIt);
    if (call.err == LDAP_SUCCESS && call.returnedOID == nullptr)
        call.err = LDAPX_NOT_SUPPORTED;
    // Lenient, unlike every other response: a value that can be read is good under any name. Only
    // a response without a value must carry its own.
    if (call.returnedbv == nullptr) {
        require_name(call, LDAPX_LBURP_START_RESPONSE);
    } else {
        open_value(call);
        decode(call, "{i}", tranSize);
    }
    return end_and_store(call, ld);
}

int ldap_lburp_end_request(LDAP *ld, int sequenceNumber, int *msgID) noexcept
{
    CallFrame call;
    // DER here and nowhere else: this value alone is sure to have its lengths in shortest form.
    if (!begin_request(call, LBER_USE_DER))
        return LDAPX_NO_MEMORY;

    encode(call, "{i}", sequenceNumber);
    send_request(call, ld, LDAPX_LBURP_END_REQUEST, msgID);
    return end_and_store(call, ld);
}

int ldap_parse_lburp_end_response(LDAP *ld, LDAPMessage *lburpEndMessage, int *resultCode,
                                  char **errorMsg, int freeIt) noexcept
{
    CallFrame call;
    read_response(call, ld, lburpEndMessage, resultCode, errorMsg, freeIt);
    require_name(call, LDAPX_LBURP_END_RESPONSE);
    return end_and_store(call, ld);
}

int ldap_lburp_operation_request(LDAP *ld, int sequenceNumber, LBURPUpdateOperationList **op,
                                 int *msgID) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "{i", sequenceNumber);
    for (; call.err == LDAP_SUCCESS && *op != nullptr; ++op)
        encode_operation(call, ld, **op);
    encode(call, "}");
    send_request(call, ld, LDAPX_LBURP_OPERATION_REQUEST, msgID);
    return end_and_store(call, ld);
}

// The checks are uneven: two encoders have them, two have none, and the delete encoder alone looks
// at its element. Callers see their texts and their order when the process ends, so they stay.

int LBURPEncodeAdd([[maybe_unused]] LDAP *ld, const char *dn, LDAPMod **attrs,
                   LDAPControl **controls, BerElement *ber) noexcept
{
    GREIRIGE_ASSERT(ld != nullptr, "ld != ((void *)0)");
    GREIRIGE_ASSERT(dn != nullptr, "dn != ((void *)0)");

    CallFrame element = append_to(ber);
    encode(element, "{t{s{", LDAP_REQ_ADD, dn);
    for (; *attrs != nullptr; ++attrs) {
        const LDAPMod &attribute = **attrs;
        if ((attribute.mod_op & LDAP_MOD_BVALUES) != 0)
            encode(element, "{s[V]}", attribute.mod_type, attribute.mod_bvalues);
        else
            encode(element, "{s[v]}", attribute.mod_type, attribute.mod_values);
    }
    encode(element, "}}");
    encode_controls(element, controls, "N}", "}");
    encode(element, "N}");
    return finish(element);
}

int LBURPEncodeDelete([[maybe_unused]] LDAP *ld, const char *dn, LDAPControl **controls,
                      BerElement *ber) noexcept
{
    GREIRIGE_ASSERT(ber != nullptr, "ber != ((void *)0)");
    GREIRIGE_ASSERT(ld != nullptr, "ld != ((void *)0)");
    GREIRIGE_ASSERT(dn != nullptr, "dn != ((void *)0)");

    CallFrame element = append_to(ber);
    encode(element, "{ts", LDAP_REQ_DELETE, dn);
    encode_controls(element, controls, "}", "N}");
    encode(element, "N}");
    return finish(element);
}

int LBURPEncodeMod(LDAP *, const char *dn, LDAPMod **mods, LDAPControl **controls,
                   BerElement *ber) noexcept
{
    CallFrame element = append_to(ber);
    encode(element, "{t{s{", LDAP_REQ_MODIFY, dn);
    for (; *mods != nullptr; ++mods) {
        const LDAPMod &mod = **mods;
        const ber_int_t operation = mod.mod_op & ~LDAP_MOD_BVALUES;
        if ((mod.mod_op & LDAP_MOD_BVALUES) != 0)
            encode(element, "{e{s[V]}}", operation, mod.mod_type, mod.mod_bvalues);
        else
            encode(element, "{e{s[v]}}", operation, mod.mod_type, mod.mod_values);
    }
    encode(element, "}}");
    encode_controls(element, controls, "N}", "}");
    encode(element, "}");
    return finish(element);
}

int LBURPEncodeModRDN(LDAP *, const char *dn, const char *newrdn, const char *newSuperior,
                      int deleteoldrdn, LDAPControl **controls, BerElement *ber) noexcept
{
    CallFrame element = append_to(ber);
    encode(element, "{t{ssb", LDAP_REQ_MODDN, dn, newrdn, deleteoldrdn);
    // A plain OCTET STRING, where the LDAP request has a [0] tag: servers read it by its place.
    if (newSuperior != nullptr)
        encode(element, "s", newSuperior);
    encode(element, "}");
    encode_controls(element, controls, "N}", "}");
    encode(element, "}");
    return finish(element);
}

int ldap_parse_lburp_operation_response(LDAP *ld, LDAPMessage *lburpMessage, int *resultCode,
                                        char **errorMsg, int *failedOpsCount,
                                        LBURPUpdateResult **failedOperations, int freeIt) noexcept
{
    if (failedOperations != nullptr)
        *failedOperations = nullptr;
    if (failedOpsCount != nullptr)
        *failedOpsCount = 0;

    CallFrame call;
    call.undecodable = LDAPX_DECODING_ERROR;
    read_response(call, ld, lburpMessage, resultCode, errorMsg, freeIt);
    require_name(call, LDAPX_LBURP_OPERATION_RESPONSE);
    if (call.err == LDAP_SUCCESS && call.returnedbv != nullptr)
        read_failed_operations(call, failedOpsCount, failedOperations);
    end(call);

    // Only the array is released; the messages in it are lost, as the manual says. LDAP_SERVER_DOWN
    // alone leaves the array alone.
    if (call.err != LDAP_SUCCESS && call.err != LDAP_SERVER_DOWN && failedOperations != nullptr &&
        *failedOperations != nullptr) {
        std::free(*failedOperations);
        *failedOperations = nullptr;
        *failedOpsCount = 0; // NOLINT(clang-analyzer-core.NullDereference): there was a value
    }
    // LDAP_OTHER becomes success, but only now that the array is gone: such a response reports
    // success and no failed operation.
    if (call.err == LDAP_OTHER)
        call.err = LDAP_SUCCESS;
    store_result(ld, call.err);
    return call.err;
}
