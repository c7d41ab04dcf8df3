#ifndef VREC_CORE_FILESYSTEM_H
#define VREC_CORE_FILESYSTEM_H

#include <cstddef>
#include <cstdio>
#include <string>

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
