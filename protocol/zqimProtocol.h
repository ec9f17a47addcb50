// What the helper and a front-end agree on: the names of the files they
// exchange in the communication directory, the finished file's text and the
// result codes an error file lists. Header only, and included by both sides,
// so the two cannot drift apart.
#pragma once

namespace zqim {

// ----------------------------------------------------------------- files

// Command file N is "ZQCmd" N ".txt"; its siblings differ in the extension.
inline constexpr char kCommandPrefix[] = "ZQCmd";
inline constexpr char kCommandExtension[] = ".txt";      // the front-end's commands
inline constexpr char kSignalExtension[] = ".zqsig";     // the front-end: the file is complete
inline constexpr char kProgressExtension[] = ".progress";  // the helper: "<n> %"
inline constexpr char kErrorExtension[] = ".err";        // the helper: the codes, then "end"
inline constexpr char kFinishedExtension[] = ".zqfin";   // the helper: the file is done
// What the finished file holds.
inline constexpr char kFinishedText[] = "Finished.";
// The helper's log, truncated at every start.
inline constexpr char kLogFileName[] = "ZQIMLog.txt";

// ----------------------------------------------------------- result codes

// A line's result: 1 stops servicing; from kMinorFrom a minor error (the file
// goes on); from kFatalFrom a fatal one (the rest of the file is skipped).
inline constexpr int kStop = 1;
inline constexpr int kMinorFrom = 1000;
inline constexpr int kFatalFrom = 2000;

// Results that are no error: the destination or link already exists, and an
// emptied parent directory could not be removed.
inline constexpr int kAlreadyExists = 4;
inline constexpr int kEmptiedParentKept = 6;

// The codes an error file lists.
inline constexpr int kOtherError = 2000;
inline constexpr int kNoSpace = 2001;
inline constexpr int kPermissionDenied = 2002;
inline constexpr int kSourceNotFound = 2003;
inline constexpr int kNotDeleted = 2004;
inline constexpr int kPairOutOfOrder = 2006;
inline constexpr int kReadOnly = 2007;
inline constexpr int kNotPermitted = 2008;

}  // namespace zqim
