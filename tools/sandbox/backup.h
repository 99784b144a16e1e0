// Backup and restore of one object.
//
// A backup is a copy of the whole entry as it stands, with its password and with what slapd notes
// about it: its UUID, who made and changed it and when. Whoever may change the entry may have one.
// Its marks say which state of the entry it shows: mts is the time of the last change in seconds
// since 2000, revision its microsecond, from 1. They advance with every change, a restore among
// them, and the marks of an earlier backup are the same again exactly when nothing has changed
// since. The marks that a client sends are read and not needed: the copy is always a whole one.
//
// A restore brings the entry back as the copy shows it:
//   it is gone                  it is added again, with its old UUID and times
//   it is there, same UUID      it is changed back; what the copy does not know leaves it
//   another has its name, or it has another name now
//                               nothing is done: entryAlreadyExists
// Whoever may change the entry, or while it is gone its parent, may restore it; what only slapd
// itself may write comes back all the same.
//
// A password guards every copy: the one that was given for the backup must be given for the
// restore, be it empty. With a backup password set for the sandbox it must be that one.
//
// Result codes, beside those that slapd gives for the entry and the client:
//   protocolError            the request cannot be read, or its sizes do not add up
//   constraintViolation      the copy is damaged, or it is one of another entry
//   invalidCredentials       the password is wrong
//   insufficientAccessRights the client is anonymous or may not change the entry
//   noSuchObject             backup: the entry is not there; restore: its parent is not
#pragma once

#include "directory.h"
#include "object_copy.h"
#include "operations.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sandbox {

class Backups {
public:
    // `password` guards both operations; without one every copy has the password of its backup.
    Backups(Directory &directory, std::string base, std::optional<std::string> password);

    void offer(Operations &operations);

private:
    void back_up(std::shared_ptr<Call> call);
    void hand_out(const std::shared_ptr<Call> &call, const std::string &dn,
                  const std::string &password);
    void restore(std::shared_ptr<Call> call);
    void find(const std::shared_ptr<Call> &call, const ObjectCopy &copy);
    void add(const std::shared_ptr<Call> &call, const ObjectCopy &copy);
    void change_back(const std::shared_ptr<Call> &call, const ObjectCopy &copy,
                     const std::string &dn);

    // Goes on when slapd lets the client change the entry; else answers the call.
    void authorize(const std::shared_ptr<Call> &call, const std::string &dn,
                   std::function<void()> go_on);
    bool refuse(Call &call, const std::string &password) const;

    Directory &directory_;
    std::string base_;
    std::optional<std::string> password_;
};

} // namespace sandbox
