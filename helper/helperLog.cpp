#include "helperLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <iostream>

namespace {

UniqueFd exchangeDir;
bool handOver = false;
uid_t frontEndUser = 0;

// Where the file `path` is made: a file of the exchange in the held
// directory, under its own name; without one, at `path` itself.
int PlaceOf(const std::string& path, std::string& name) {
    if (!exchangeDir.valid()) {
        name = path;
        return AT_FDCWD;
    }
    name = std::filesystem::path(path).filename().string();
    return exchangeDir.get();
}

}  // namespace

void HoldExchangeDir(UniqueFd dir) {
    exchangeDir = std::move(dir);
}

int ExchangeDir() {
    return exchangeDir.get();
}

void HandFilesTo(uid_t user) {
    frontEndUser = user;
    handOver = true;
}

std::error_code MakeFreshFile(int dir, const std::string& name, UniqueFd& out) {
    // Only a trusted user can put anything here; what they left is replaced,
    // never written into.
    RemoveFileAt(dir, name.c_str());
    if (std::error_code ec = OpenFileAt(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                                        out, 0600))
        return ec;
    // Where the helper may not give files away, the file stays its own.
    if (handOver && frontEndUser != ::geteuid())
        ChangeOwnerOf(out.get(), frontEndUser, static_cast<gid_t>(-1));
    return {};
}

void WriteFreshFile(int dir, const std::string& name, const std::string& content) {
    UniqueFd file;
    if (!MakeFreshFile(dir, name, file))
        WriteAll(file.get(), content);
}

void InitLog(const std::string& path) {
    std::string name;
    const int dir = PlaceOf(path, name);
    UniqueFd file;
    if (MakeFreshFile(dir, name, file))
        gLogStream.close();
    else
        gLogStream.adopt(std::move(file));
    ZQIMLog("Opened Log at: " + path);
}

void ZQIMLog(const std::string& message) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[21];
    std::strftime(stamp, sizeof stamp, "%FT%TZ", &utc);

    // Written whole and at once: the front-end reads the log as it grows.
    const std::string line = std::string(stamp) + ": " + message + "\n";
    gLogStream.write(line);
    if (gVerbose) {
        std::cout << line;
        std::cout.flush();
    }
}

void CloseLog() {
    ZQIMLog("Closing log.");
    gLogStream.close();
}

std::string PrintErrorCode(std::error_code ec) {
    std::ostringstream text;
    text << "Error " << ec.value() << ": category=" << ec.category().name()
         << ", message=" << ec.message();
    return text.str();
}

void ZQIMWriteProgress(const std::string& path, int progress) {
    std::string name;
    const int dir = PlaceOf(path, name);
    WriteFreshFile(dir, name, std::to_string(progress) + " %\n");
}

std::string ConvertFromWideStringToUTF8(const std::wstring&) {
    return "ConvertFromWideStringToUTF8() - Only needed on Windows.";
}
