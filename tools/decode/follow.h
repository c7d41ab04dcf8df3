#ifndef VREC_TOOLS_FOLLOW_H
#define VREC_TOOLS_FOLLOW_H

#include <signal.h>
#include <sys/types.h>

#include <string>

#include "converter.h"

namespace vdecode {

// Reads a running capture in a directory as one stream: real_log.bin as it grows and, when
// it is renamed to an item and a new real_log.bin begins, the rest of the renamed file first,
// so that no byte is missed or read twice. Only reads: the capture's files stay as they are.
class Follower {
public:
    Follower(std::string dir, bool fromStart, Converter& converter)
        : dir(std::move(dir)), fromStart(fromStart), converter(converter) {}
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    // Follows until `stop` becomes non-zero; false with `error` on a failure.
    bool run(const volatile sig_atomic_t& stop, std::string* error);

private:
    struct FileId {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const FileId& other) const {
            return device == other.device && inode == other.inode;
        }
    };
    bool openFirst(bool atEnd, std::string* error);
    bool open(const std::string& path, std::string* error);
    bool drain(std::string* error);  // reads what the file holds beyond what was read
    // The capture's file that follows the one held, or "" while there is none yet.
    std::string successor() const;

    const std::string dir;
    const bool fromStart;
    Converter& converter;
    int fd = -1;
    FileId held;
};

}  // namespace vdecode

#endif
