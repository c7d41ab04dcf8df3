#include "dumpSetup.h"

#include "simOptions.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace vtools {

namespace {

constexpr size_t kNameField = 20;  // description and file name fields of a table entry

std::vector<std::string> splitAt(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at = text.find(separator); at != std::string::npos;
         at = text.find(separator, from)) {
        parts.push_back(text.substr(from, at - from));
        from = at + 1;
    }
    parts.push_back(text.substr(from));
    return parts;
}

bool parseNumber(const std::string& text, uint64_t* value) {
    if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    char* end = nullptr;
    errno = 0;
    *value = strtoull(text.c_str(), &end, hex ? 16 : 10);
    return *end == '\0' && errno == 0;
}

std::string stem(const std::string& file) {
    const size_t dot = file.rfind('.');
    return dot == std::string::npos || dot == 0 ? file : file.substr(0, dot);
}

}  // namespace

bool parseByteCount(const std::string& text, uint64_t* value) {
    std::string digits = text;
    unsigned shift = 0;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (!hex && !digits.empty()) {
        const char last = static_cast<char>(toupper(static_cast<unsigned char>(digits.back())));
        shift = last == 'K' ? 10 : last == 'M' ? 20 : last == 'G' ? 30 : 0;
    }
    if (shift != 0) {
        digits.pop_back();
    }
    if (!parseNumber(digits, value) || *value > (UINT64_MAX >> shift)) {
        return false;
    }
    *value <<= shift;
    return true;
}

bool parseDumpRegions(const std::string& list, std::vector<DumpRegion>* regions,
                      std::string* error) {
    regions->clear();
    for (const std::string& item : splitAt(list, ',')) {
        const std::vector<std::string> fields = splitAt(item, ':');
        const std::string where = "region \"" + item + "\" of --dump-regions";
        if (fields.size() < 2 || fields.size() > 3) {
            *error = where + ": give SIZE[@ADDR]:FILE[:DESCRIPTION]";
            return false;
        }
        DumpRegion region;
        const size_t at = fields[0].find('@');
        if (!parseByteCount(fields[0].substr(0, at), &region.length) || region.length == 0) {
            *error = where + ": the size is a number above 0 (decimal or 0x hex, K, M or G)";
            return false;
        }
        if (at != std::string::npos) {
            if (!parseByteCount(fields[0].substr(at + 1), &region.address) ||
                region.address > UINT64_MAX - region.length) {
                *error = where +
                         ": the address is a number (decimal or 0x hex) that leaves "
                         "room for the size below 2^64";
                return false;
            }
            region.placed = true;
        }
        region.file = fields[1];
        region.description = fields.size() == 3 ? fields[2] : stem(fields[1]);
        if (region.file.size() > kNameField || region.description.size() > kNameField) {
            *error = where + ": file name and description hold at most 20 bytes each";
            return false;
        }
        regions->push_back(region);
    }
    return true;
}

bool placeDumpRegions(std::vector<DumpRegion>* regions, int tableBits, std::string* error) {
    uint64_t next = tableBits == 32 ? kFirstRegion32 : kFirstRegion64;
    const uint64_t top = tableBits == 32 ? 0x100000000ull : 0;  // 0: the whole 64-bit space
    for (size_t i = 0; i < regions->size(); ++i) {
        DumpRegion& region = (*regions)[i];
        if (!region.placed) {
            region.address = next;
        }
        const uint64_t end = region.address + region.length;
        if (end < region.address || (top != 0 && end > top)) {
            *error = "region " + std::to_string(i) + " (" + region.file + ") does not fit a " +
                     std::to_string(tableBits) + "-bit table";
            return false;
        }
        const uint64_t aligned = (end + kRegionAlign - 1) / kRegionAlign * kRegionAlign;
        next = aligned + kRegionAlign;
    }
    return true;
}

bool completeDumpSetup(DumpSetup* setup, const std::string& diagLink, std::string* error) {
    if (setup->regions.empty() && !parseDumpRegions(kDefaultDumpRegions, &setup->regions, error)) {
        return false;
    }
    if (setup->portPath.empty() && !diagLink.empty()) {
        setup->portPath = diagLink + ".dump";
    }
    return placeDumpRegions(&setup->regions, setup->tableBits, error);
}

bool parseDumpOption(const std::string& name, const std::string& value, DumpSetup* setup,
                     std::string* error) {
    if (name == "dump-regions") {
        return parseDumpRegions(value, &setup->regions, error);
    }
    if (name == "dump-table") {
        if (value != "32" && value != "64") {
            *error = "--dump-table takes 32 or 64, not " + value;
            return false;
        }
        setup->tableBits = value == "32" ? 32 : 64;
        return true;
    }
    if (name == "dump-port") {
        setup->portPath = value;
        return !value.empty() || (*error = "--dump-port takes a path", false);
    }
    if (name == "dump-driver") {
        if (value != "option" && value != "qcserial") {
            *error = "--dump-driver takes option or qcserial, not " + value;
            return false;
        }
        setup->driver = value;
        return true;
    }
    if (name == "dump-product") {
        bool hex = value.size() == 4;
        for (const char c : value) {
            hex = hex && isxdigit(static_cast<unsigned char>(c));
        }
        if (!hex) {
            *error = "--dump-product takes four hex digits, such as 900E or 90DB, not " + value;
            return false;
        }
        setup->product = value;
        for (char& c : setup->product) {
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
        return true;
    }
    if (name == "reboot-ms") {
        uint64_t ms = 0;
        if (!parseNumber(value, &ms) || ms > 3600000) {
            *error = "--reboot-ms takes milliseconds, 0 to 3600000, not " + value;
            return false;
        }
        setup->rebootMs = static_cast<long>(ms);
        return true;
    }
    if (name == "dump-unbound") {
        setup->unbound = true;
        return true;
    }
    *error = "unknown option --" + name;
    return false;
}

bool parseDumpFault(const std::string& text, Fault* fault, std::string* error) {
    const size_t cut = text.find_first_of("=@");
    const std::string name = text.substr(0, cut);
    const std::string value = cut == std::string::npos ? "" : text.substr(cut + 1);
    const char mark = cut == std::string::npos ? '\0' : text[cut];
    struct Family {
        const char* name;
        Fault::Kind kind;
        char mark;  // what stands between name and value
        const char* form;
    };
    static const Family kFamilies[] = {
        {"crash", Fault::kCrash, '@', "crash[@MS]"},
        {"dump-hangup", Fault::kDumpHangup, '@', "dump-hangup@BYTES"},
        {"dump-silent", Fault::kDumpSilent, '@', "dump-silent@BYTES"},
        {"dump-refuse", Fault::kDumpRefuse, '=', "dump-refuse=REGION (number or file name)"},
        {"dump-mode", Fault::kDumpMode, '=', "dump-mode=N"},
        {"dump-table-length", Fault::kDumpTableLength, '=', "dump-table-length=BYTES"},
    };
    for (const Family& family : kFamilies) {
        if (name != family.name) {
            continue;
        }
        *fault = Fault();
        fault->kind = family.kind;
        fault->given = text;
        uint64_t number = 0;
        const bool bare = family.kind == Fault::kCrash && mark == '\0';
        bool good = bare || (mark == family.mark && !value.empty());
        if (good && family.kind == Fault::kDumpRefuse) {
            fault->text = value;
        } else if (good && !bare) {
            const uint64_t most =
                family.kind == Fault::kDumpMode ? UINT32_MAX : static_cast<uint64_t>(LONG_MAX);
            good = (family.kind == Fault::kCrash ? parseNumber(value, &number)
                                                 : parseByteCount(value, &number)) &&
                   number <= most;
            if (family.kind == Fault::kCrash) {
                fault->afterMs = static_cast<long>(number);
            } else {
                fault->value = static_cast<long>(number);
            }
        }
        if (!good) {
            *error = "bad fault " + text + " (" + family.form + ")";
        }
        return good;
    }
    return false;
}

}  // namespace vtools
