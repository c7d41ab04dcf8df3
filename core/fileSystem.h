#ifndef VREC_CORE_FILESYSTEM_H
#define VREC_CORE_FILESYSTEM_H

#include <cstddef>
#include <cstdio>
#include <string>

#include <sys/types.h>
#include <sys/uio.h>

// A file with a name. The object owns its stream but does not close it when destroyed:
// the owner calls Close(), and a capture checks its result.
class CFile {
public:
    CFile() = default;
    explicit CFile(std::string path) : path(std::move(path)) {}
    virtual ~CFile() = default;
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    void SetPath(const std::string& newPath) { path = newPath; }
    const std::string& GetPath() const { return path; }

    bool Exists() const { return Exists(path); }
    static bool Exists(const std::string& path);

    bool Open(const char* mode);
    bool IsOpen() const { return stream != nullptr; }
    // Bytes written; 0 when the file is not open.
    size_t Write(const void* buffer, size_t length);
    // 0 on success, as fflush; a full medium shows here first.
    int Flush();
    bool Close();
    bool Rename(const std::string& newPath) const;
    bool Remove() const;

private:
    std::string path;
    FILE* stream = nullptr;
};

// A file written with plain write(2) calls: what the caller hands over is in the kernel when
// the call returns, with no stream buffer in between. Closed when destroyed.
class CRawFile {
public:
    CRawFile() = default;
    ~CRawFile() { Close(); }
    CRawFile(const CRawFile&) = delete;
    CRawFile& operator=(const CRawFile&) = delete;

    // Creates the file, or empties it unless `append` is set. False with LastError() set.
    bool Open(const std::string& path, bool append);
    bool IsOpen() const { return fd != -1; }
    // One writev(2): the bytes written, or -1 with LastError() set. An interrupted call is
    // repeated.
    ssize_t WriteV(const iovec* parts, int count);
    // Whether the medium takes a byte: writes one at the start of the empty file just
    // opened and takes it back. False with LastError() set.
    bool ProbeWrite();
    bool Close();
    int LastError() const { return lastError; }

private:
    int fd = -1;
    int lastError = 0;
};

// A directory. Relative paths (empty, or starting with ".") are taken under the
// current working directory.
class CDirectory {
public:
    CDirectory();
    explicit CDirectory(const std::string& path);
    virtual ~CDirectory() = default;

    const std::string& GetPath() const { return path; }

    static std::string GetCurrentDir();
    bool Exists() const;
    static bool Exists(const std::string& path);
    static bool Create(const std::string& path);
    static std::string NormalisePath(const std::string& path);
    static char Separator() { return '/'; }

private:
    static std::string Resolve(const std::string& path);

    std::string path;
};

#endif
