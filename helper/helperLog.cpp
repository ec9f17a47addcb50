#include "helperLog.h"

#include <ctime>
#include <fstream>
#include <iostream>

void InitLog(const std::string& path) {
    gLogStream.open(path, std::ios::out | std::ios::trunc);
    ZQIMLog("Opened Log at: " + path);
}

void ZQIMLog(const std::string& message) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[21];
    std::strftime(stamp, sizeof stamp, "%FT%TZ", &utc);

    gLogStream << stamp << ": " << message << '\n';
    gLogStream.flush();
    if (gVerbose) {
        std::cout << stamp << ": " << message << '\n';
        std::cout.flush();
    }
}

void CloseLog() {
    ZQIMLog("Closing log.");
    gLogStream.flush();
    gLogStream.close();
}

std::string PrintErrorCode(std::error_code ec) {
    std::ostringstream text;
    text << "Error " << ec.value() << ": category=" << ec.category().name()
         << ", message=" << ec.message();
    return text.str();
}

void ZQIMWriteProgress(const std::string& path, int progress) {
    std::ofstream file(path, std::ios::out | std::ios::trunc);
    file << progress << " %" << '\n';
    file.flush();
}

std::string ConvertFromWideStringToUTF8(const std::wstring&) {
    return "ConvertFromWideStringToUTF8() - Only needed on Windows.";
}
