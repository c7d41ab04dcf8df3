#include "fileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>

bool CFile::Exists(const std::string& filePath) {
    return access(filePath.c_str(), F_OK) != -1;
}

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

bool CFile::Remove() const {
    return remove(path.c_str()) == 0;
}

bool CRawFile::Open(const std::string& filePath, bool append) {
    Close();
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    fd = open(filePath.c_str(), flags, 0666);
    lastError = fd == -1 ? errno : 0;
    return fd != -1;
}

ssize_t CRawFile::WriteV(const iovec* parts, int count) {
    if (fd == -1) {
        lastError = EBADF;
        return -1;
    }
    ssize_t written;
    do {
        written = writev(fd, parts, count);
    } while (written < 0 && errno == EINTR);
    lastError = written < 0 ? errno : 0;
    return written;
}

bool CRawFile::ProbeWrite() {
    const char byte = 0;
    ssize_t written;
    do {
        written = pwrite(fd, &byte, 1, 0);
    } while (written < 0 && errno == EINTR);
    if (written != 1 || ftruncate(fd, 0) != 0) {
        lastError = written == 0 ? ENOSPC : errno;
        return false;
    }
    return true;
}

bool CRawFile::Close() {
    if (fd == -1) {
        return true;
    }
    const bool closed = close(fd) == 0;
    if (!closed) {
        lastError = errno;
    }
    fd = -1;
    return closed;
}

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

bool CDirectory::Exists() const {
    return access(path.c_str(), F_OK) != -1;
}

bool CDirectory::Exists(const std::string& dirPath) {
    return access(NormalisePath(Resolve(dirPath)).c_str(), F_OK) != -1;
}

bool CDirectory::Create(const std::string& dirPath) {
    return mkdir(dirPath.c_str(), 0777) == 0;
}

std::string CDirectory::NormalisePath(const std::string& dirPath) {
    std::string copy = dirPath;
    std::replace(copy.begin(), copy.end(), '\\', '/');
    return copy;
}
