#include "logConfigDocument.h"

#include <initializer_list>

namespace {

struct Label {
    const char* element;
    int id;
    const char* name;
    const char* range;    // pairs of first and last ID, each pair closed by ";"
    const char* itemTag;  // the element name of its items
    std::initializer_list<const char*> items;
};

const char* const kMessageRange =
    "0x0000,0x0054;0x01F4,0x01FA;0x03E8,0x03EF;0x07D0,0x07D8;0x0BB8,0x0BC4;0x0FA0,0x0FAA;"
    "0x1194,0x11AE;0x11F8,0x1203;0x1388,0x13A5;0x157C,0x158B;0x1770,0x17B8;0x1964,0x1979;"
    "0x1B58,0x1B5B;0x1BBC,0x1BC7;0x1C20,0x1C21;0x1F40,0x1F40;0x2134,0x214B;0x2328,0x2330;"
    "0x251C,0x2525;0x27D8,0x27E2;";
const char* const kLogRange =
    "0x0000,0x0000;0x0001,0x053A;0x0000,0x0000;0x0000,0x0000;0x0001,0x0910;0x0001,0x0420;"
    "0x0000,0x0000;0x0001,0x04FF;0x0000,0x0000;0x0000,0x0000;0x0001,0x038A;0x0001,0x0201;"
    "0x0000,0x0000;0x0000,0x0000;0x0000,0x0000;";
const char* const kEventRange = "0x0001,0x0840;";

const Label kLabels[] = {
    {"Message", 0, "Message", kMessageRange, "Item", {"Low", "Medium", "High", "Error", "Fatal"}},
    {"Log",
     1,
     "Log",
     kLogRange,
     "Item",
     {"Common", "SMS", "UTMS", "UMB", "DTV", "APU", "WCDMA", "GSM", "Location Based Services",
      "BOA", "LTE"}},
    {"LogOTA",
     1,
     "Log(OTA)",
     kLogRange,
     "Item",
     {"CDMA", "Bluetooth", "CDMA 1xEV-DO", "UMB", "WLAN", "WCDMA", "GSM", "UMTS", "DTV"}},
    {"Event", 2, "Event", kEventRange, "item", {"Known Events"}},
};

std::string build() {
    std::string doc = "<?xml version=\"1.0\" ?> <Configuration>";
    for (const Label& label : kLabels) {
        doc += std::string(" <") + label.element + " type=\"Label\" id=\"" +
               std::to_string(label.id) + "\" name=\"" + label.name + "\" range=\"" + label.range +
               "\">";
        int id = 0;
        for (const char* item : label.items) {
            doc += std::string(" <") + label.itemTag + " type=\"Item\" id=\"" +
                   std::to_string(id++) + "\" name=\"" + item + "\" option=\"1\" />";
        }
        doc += std::string(" </") + label.element + ">";
    }
    doc += " </Configuration>";
    return doc;
}

}  // namespace

const std::string& builtInLogConfig() {
    static const std::string document = build();
    return document;
}
