// Whose entries may decide what root does. The helper trusts root, its own
// effective user, and the user of the front-end it serves; a link, file or
// folder of anyone else is never followed, read as a payload's authority, or
// handed on as if it were theirs.
#pragma once

#include <sys/types.h>

// Registers the front-end's user, read once at start-up. Until then (and
// without a front-end) only root and the helper's own user are trusted.
void TrustFrontEndUser(uid_t user);

// Forgets the front-end's user (tests and the fuzzer start each run afresh).
void ForgetFrontEndUser();

// True for root, the helper's effective user and the registered front-end
// user.
bool IsTrustedOwner(uid_t owner);
