#include "fileSystem.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

bool CFile::Exists(const std::string& filePath) { return access(filePath.c_str(), F_OK) != -1; }

bool CFile::Open(const char* mode) {
    stream = fopen(path.c_str(), mode);
    return stream != nullptr;
}

size_t CFile::Write(const void* buffer, size_t length) {
    if (stream == nullptr) {
        return 0;
    }
    return fwrite(buffer, 1, length, stream);
}

int CFile::Flush() {
    if (stream == nullptr) {
        return 0;
    }
    return fflush(stream);
}

bool CFile::Close() {
    if (stream == nullptr) {
        return false;
    }
    // fclose releases the stream even when its final flush fails (a full medium), so the
    // pointer must not outlive the call; the failure still reaches the caller.
    const bool closed = fclose(stream) == 0;
    stream = nullptr;
    return closed;
}

bool CFile::Rename(const std::string& newPath) const {
    return rename(path.c_str(), newPath.c_str()) == 0;
}

bool CFile::Remove() const { return remove(path.c_str()) == 0; }

CDirectory::CDirectory() : path(GetCurrentDir()) {}

CDirectory::CDirectory(const std::string& dirPath) : path(Resolve(dirPath)) {}

std::string CDirectory::Resolve(const std::string& dirPath) {
    if (dirPath.empty() || dirPath[0] == '.') {
        return GetCurrentDir() + Separator() + NormalisePath(dirPath);
    }
    return dirPath;
}

std::string CDirectory::GetCurrentDir() {
    char buffer[4096] = {};
    if (getcwd(buffer, sizeof(buffer)) == nullptr) {
        return std::string();
    }
    return std::string(buffer);
}

bool CDirectory::Exists() const { return access(path.c_str(), F_OK) != -1; }

bool CDirectory::Exists(const std::string& dirPath) {
    return access(NormalisePath(Resolve(dirPath)).c_str(), F_OK) != -1;
}

bool CDirectory::Create(const std::string& dirPath) { return mkdir(dirPath.c_str(), 0777) == 0; }

std::string CDirectory::NormalisePath(const std::string& dirPath) {
    std::string copy = dirPath;
    std::replace(copy.begin(), copy.end(), '\\', '/');
    return copy;
}
