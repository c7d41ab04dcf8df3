#include "fileReading.h"

#include <cstdio>

#include "diagLog.h"
#include "fileSystem.h"

bool readSuppliedFile(const std::string& path, std::string& bytes, long limit) {
    bytes.clear();
    if (!CFile::Exists(path)) {
        DIAG_LOG(LOG_INFO, "cmd file not exist. %s", path.c_str());
        return false;
    }
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        // The full-width colon (GB2312) has always stood in this line.
        DIAG_LOG(LOG_INFO, "file open failed\xA3\xBA%s", path.c_str());
        return false;
    }
    fseek(file, 0, SEEK_END);
    const long size = ftell(file);
    fseek(file, 0, SEEK_SET);
    if (size <= 0) {
        fclose(file);
        return false;
    }
    if (size > limit) {
        fclose(file);
        DIAG_LOG(LOG_ERRO, "%s is %ld bytes, more than the %ld accepted; not read.", path.c_str(),
                 size, limit);
        return false;
    }
    bytes.resize(static_cast<size_t>(size));
    const size_t got = fread(&bytes[0], 1, bytes.size(), file);
    fclose(file);
    if (got != bytes.size()) {
        DIAG_LOG(LOG_INFO, "file read failed.");
        bytes.resize(got);
        return false;
    }
    return true;
}
