// What a module in dump mode sends, as the host's Sahara session takes it: packets, read
// answers and region tables. Input: one byte of settings (bit 0: the table's width for the
// table parser, bits 1-3: the size of the pieces the bytes come in), then the stream.
#include <set>
#include <string>

#include "fuzzSupport.h"
#include "sahara.h"

namespace {

void checkRegions(const std::vector<sahara::Region>& regions) {
    std::set<std::string> names;
    for (const sahara::Region& region : regions) {
        const std::string& name = region.fileName;
        if (name.empty() || name.find('/') != std::string::npos || name == "." ||
            name.find("..") != std::string::npos || !names.insert(name).second) {
            fuzz::fail("an unsafe or repeated file name");
        }
        if (region.address + region.length < region.address) {
            fuzz::fail("a region that wraps around");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool wide = (data[0] & 1) != 0;
    const size_t step = size_t{1} << (((data[0] >> 1) & 7) * 2);
    ++data;
    --size;

    std::vector<sahara::Region> regions;
    std::string reason;
    if (sahara::parseTable(data, size, wide, &regions, &reason)) {
        checkRegions(regions);
    } else if (reason.empty()) {
        fuzz::fail("a table refused without a reason");
    }

    sahara::Session session(sahara::Session::Action::Collect);
    for (size_t at = 0; at < size; at += step) {
        const size_t piece = std::min(step, size - at);
        for (const auto& event : session.feed(data + at, piece)) {
            if (event.kind == sahara::Session::Event::Kind::RegionData &&
                (event.data == nullptr || event.size == 0 ||
                 event.region >= session.regions().size())) {
                fuzz::fail("region data without bytes or region");
            }
        }
        if (session.storedBytes() > session.totalBytes()) {
            fuzz::fail("more stored than the table holds");
        }
    }
    checkRegions(session.regions());
    session.abort(sahara::Cause::Silent);
    session.abort(sahara::Cause::HungUp);
    if (session.phase() != sahara::Session::Phase::Finished) {
        fuzz::fail("a session that does not end after a hang-up");
    }
    (void)session.indexText("fuzz");
    return 0;
}
