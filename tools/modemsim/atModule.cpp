#include "atModule.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "atText.h"
#include "codec.h"
#include "textUtil.h"

namespace vtools {

namespace {

const char kOk[] = "\r\nOK\r\n";
const char kError[] = "\r\nERROR\r\n";

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// A whole decimal number, no sign, no blanks: the module reads its arguments strictly.
bool parseCount(const std::string& text, long* value) {
    if (text.empty() || text.size() > 9 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); })) {
        return false;
    }
    *value = std::stol(text);
    return true;
}

// A module serves its files piece by piece; only the piece asked for is read, so that a
// file of many MiB costs no more per answer than a small one.
bool readPiece(const std::string& path, size_t start, size_t length, size_t* size,
               std::string* data) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        return false;
    }
    *size = static_cast<size_t>(in.tellg());
    start = std::min(start, *size);
    length = std::min(length, *size - start);
    data->assign(length, '\0');
    in.seekg(static_cast<std::streamoff>(start));
    return length == 0 ||
           static_cast<bool>(in.read(&(*data)[0], static_cast<std::streamsize>(length)));
}

}  // namespace

AtModule::AtModule(AtModuleConfig config) : cfg(std::move(config)) {}

AtModule::Trace AtModule::takeTrace() {
    const Trace taken = trace;
    trace = Trace::kNone;
    return taken;
}

std::string AtModule::refuse(const std::string& why) {
    if (note) {
        note("refused " + why);
    }
    return kError;
}

std::string AtModule::answer(const std::string& line) const {
    return "\r\n" + line + "\r\n" + kOk;
}

std::string AtModule::handle(const std::string& line) {
    const std::string up = upper(line);
    if (!startsWith(up, "AT")) {
        return refuse("not a command: " + escapeText(line));
    }
    if (static_cast<int>(line.size()) > cfg.maxCommandLength) {
        return refuse("too long: " + std::to_string(line.size()) + " characters");
    }
    for (const std::string& name : errorCommands) {
        if (!name.empty() && startsWith(up, "AT" + upper(name))) {
            return refuse("by fault: " + name);
        }
    }
    // Name up to "=" or "?", then what follows.
    const size_t cut = up.find_first_of("=?");
    const std::string name = up.substr(2, cut == std::string::npos ? std::string::npos : cut - 2);
    const std::string tail = cut == std::string::npos ? "" : line.substr(cut);

    if (name.empty() && tail.empty()) {
        return kOk;
    }
    if (name == "E0" || name == "E1") {
        echo = name == "E1";
        return kOk;
    }
    if (name == "^MDON") {
        return setOrQuery(tail, &mdon, 4, "^MDON");
    }
    if (name == "^MDSL") {
        return setOrQuery(tail, &mdsl, 1, "^MDSL");
    }
    if (name == "^MDSF") {
        return setOrQuery(tail, &mdsf, 1, "^MDSF");
    }
    if (name == "^MDSTORAGE") {
        if (tail == "?") {
            return answer("^MDSTORAGE: " + cfg.storageText);
        }
        if (tail == "=0" || tail == "=1") {
            if (note) {
                note("storage cleared " + tail.substr(1));
            }
            return kOk;
        }
        return refuse("^MDSTORAGE argument " + escapeText(tail));
    }
    if (name == "^CMDLEN" && tail == "?") {
        return answer("^CMDLEN: " + std::to_string(cfg.maxCommandLength));
    }
    if (name == "^RSFW" && startsWith(tail, "=")) {
        return uploadPiece(tail.substr(1));
    }
    if (name == "^RSFR" && tail == "=?") {
        return listAnswer();
    }
    if (name == "^RSFR" && startsWith(tail, "=")) {
        return serveFile(tail.substr(1));
    }
    if (name == "+XSYSTRACE" && startsWith(tail, "=")) {
        return kOk;
    }
    if (name == "+TRACE" && (tail == "=1" || tail == "=0")) {
        trace = tail == "=1" ? Trace::kStart : Trace::kStop;
        return kOk;
    }
    return refuse("unknown: " + escapeText(line));
}

std::string AtModule::setOrQuery(const std::string& tail, int* value, int highest,
                                 const std::string& name) {
    if (tail == "?") {
        return answer(name + ": " + std::to_string(*value));
    }
    long number = 0;
    if (startsWith(tail, "=") && parseCount(tail.substr(1), &number) && number <= highest) {
        *value = static_cast<int>(number);
        return kOk;
    }
    return refuse(name + " argument " + escapeText(tail));
}

std::string AtModule::uploadPiece(const std::string& args) {
    const AtArgs fields = splitAtArgs(args);
    long count = 0;
    long number = 0;
    if (!fields.wellFormed || fields.values.size() != 6 || !fields.quoted[0] || !fields.quoted[1] ||
        !fields.quoted[5] || fields.values[0].empty() || !parseCount(fields.values[3], &count) ||
        !parseCount(fields.values[4], &number) || count < 1 || number < 1 || number > count) {
        uploadNext = 1;
        return refuse("^RSFW malformed");
    }
    if (number == 1) {
        // A first piece always begins a new upload; an unfinished one is forgotten.
        uploadName = fields.values[0];
        uploadCount = static_cast<int>(count);
        uploadData.clear();
    } else if (number != uploadNext || count != uploadCount || fields.values[0] != uploadName) {
        const std::string why = "^RSFW piece " + std::to_string(number) + "/" +
                                std::to_string(count) + ", expected " + std::to_string(uploadNext) +
                                "/" + std::to_string(uploadCount);
        uploadNext = 1;
        return refuse(why);
    }
    std::string piece;
    if (!base64DecodeStrict(fields.values[5], &piece) || piece.empty()) {
        uploadNext = 1;
        return refuse("^RSFW piece " + std::to_string(number) + " is no Base64");
    }
    uploadData += piece;
    uploadNext = static_cast<int>(number) + 1;
    if (number == count) {
        uploadNext = 1;
        const std::string path = cfg.uploadDir + "/" + uploadName;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << uploadData;
        out.close();
        if (!out) {
            return refuse("^RSFW cannot store " + path);
        }
        if (note) {
            note("upload " + uploadName + " " + std::to_string(uploadData.size()) + " bytes in " +
                 std::to_string(count) + " pieces");
        }
    }
    return kOk;
}

std::vector<std::string> AtModule::listFiles() const {
    std::vector<std::string> names;
    if (cfg.filesDir.empty()) {
        return names;
    }
    DIR* dir = opendir(cfg.filesDir.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        struct stat st {};
        const std::string name = entry->d_name;
        if (stat((cfg.filesDir + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::string AtModule::listAnswer() const {
    const std::vector<std::string> names = listFiles();
    std::string line = "^RSFR:";
    if (names.empty()) {
        return answer(line);
    }
    if (cfg.listUnquoted) {
        for (const std::string& name : names) {
            line += " " + name;
        }
        return answer(line);
    }
    line += " (";
    for (size_t i = 0; i < names.size(); ++i) {
        line += (i == 0 ? "\"" : ",\"") + names[i] + "\"";
    }
    return answer(line + ")");
}

std::string AtModule::serveFile(const std::string& args) {
    const AtArgs fields = splitAtArgs(args);
    if (!fields.wellFormed || fields.values.size() != 2 || !fields.quoted[0] || !fields.quoted[1]) {
        return refuse("^RSFR malformed");
    }
    const std::string& wanted = fields.values[0];
    const std::string& unit = fields.values[1];
    // The host asks in lower case; the module's names may not be.
    std::string found;
    for (const std::string& name : listFiles()) {
        if (name == wanted || (found.empty() && upper(name) == upper(wanted))) {
            found = name;
        }
    }
    if (found.empty()) {
        return refuse("^RSFR no file " + wanted);
    }
    const std::string key = found + "\n" + unit;
    if (key != transferKey) {
        transferKey = key;
        transferPosition = 0;
        transferPieces = 0;
    }
    if (stopTransferAfter > 0 && transferPieces >= stopTransferAfter) {
        transferKey.clear();
        return refuse("^RSFR transfer stopped by fault after " + std::to_string(transferPieces) +
                      " pieces");
    }
    size_t fileSize = 0;
    std::string data;
    if (!readPiece(cfg.filesDir + "/" + found, transferPosition, cfg.pieceSize, &fileSize, &data)) {
        transferKey.clear();
        return refuse("^RSFR no file " + wanted);
    }
    transferPosition = std::min(transferPosition, fileSize) + data.size();
    ++transferPieces;
    const std::string piece = Base64Encode(reinterpret_cast<const unsigned char*>(data.data()),
                                           static_cast<int>(data.size()));
    const std::string line = "^RSFR: \"" + wanted + "\",\"" + unit + "\",123," +
                             std::to_string(fileSize) + "," + std::to_string(transferPosition) +
                             ",\"" + piece + "\"";
    if (transferPosition >= fileSize) {
        // Done: the next request of this file starts it over.
        transferKey.clear();
        if (note) {
            note("served " + found + " " + std::to_string(fileSize) + " bytes in " +
                 std::to_string(transferPieces) + " pieces");
        }
    }
    return answer(line);
}

}  // namespace vtools
