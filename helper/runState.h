// The part of the interpreter's run state that operations read or set.
#pragma once

#include <string>

// The install root of `setRoot`, kept across command files.
extern std::string gRoot;
// Set once a move under the current root was refused as cross-device: later
// moves copy. Cleared by every `setRoot`.
extern bool gRootIsCrossDevice;
