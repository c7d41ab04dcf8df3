#include "controlMessage.h"

#include <algorithm>

bool isStopMessage(const char* data, size_t length) {
    static const char kStop[] = "stop";
    const char* end = data + length;
    return data != nullptr && std::search(data, end, kStop, kStop + 4) != end;
}
