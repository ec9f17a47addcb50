#include "trust.h"

#include <unistd.h>

namespace {

bool haveFrontEnd = false;
uid_t frontEndUser = 0;

}  // namespace

void TrustFrontEndUser(uid_t user) {
    frontEndUser = user;
    haveFrontEnd = true;
}

void ForgetFrontEndUser() {
    haveFrontEnd = false;
    frontEndUser = 0;
}

bool IsTrustedOwner(uid_t owner) {
    return owner == 0 || owner == ::geteuid() || (haveFrontEnd && owner == frontEndUser);
}
