#include "tarn/device/DeviceModel.h"

#include <sys/utsname.h>

#include <cstdlib>
#include <cstring>

namespace tarn {

const std::vector<DeviceModelRow>& deviceModelTable() {
    // Kept for the life of the process (never destroyed): looked up from any thread until exit.
    static const auto* table = new std::vector<DeviceModelRow>{
        {{"iPod5,1"}, "iPod touch (5th generation)"},
        {{"iPod7,1"}, "iPod touch (6th generation)"},
        {{"iPod9,1"}, "iPod touch (7th generation)"},
        {{"iPhone3,1", "iPhone3,2", "iPhone3,3"}, "iPhone 4"},
        {{"iPhone4,1"}, "iPhone 4s"},
        {{"iPhone5,1", "iPhone5,2"}, "iPhone 5"},
        {{"iPhone5,3", "iPhone5,4"}, "iPhone 5c"},
        {{"iPhone6,1", "iPhone6,2"}, "iPhone 5s"},
        {{"iPhone7,2"}, "iPhone 6"},
        {{"iPhone7,1"}, "iPhone 6 Plus"},
        {{"iPhone8,1"}, "iPhone 6s"},
        {{"iPhone8,2"}, "iPhone 6s Plus"},
        {{"iPhone9,1", "iPhone9,3"}, "iPhone 7"},
        {{"iPhone9,2", "iPhone9,4"}, "iPhone 7 Plus"},
        {{"iPhone10,1", "iPhone10,4"}, "iPhone 8"},
        {{"iPhone10,2", "iPhone10,5"}, "iPhone 8 Plus"},
        {{"iPhone10,3", "iPhone10,6"}, "iPhone X"},
        {{"iPhone11,2"}, "iPhone XS"},
        {{"iPhone11,4", "iPhone11,6"}, "iPhone XS Max"},
        {{"iPhone11,8"}, "iPhone XR"},
        {{"iPhone12,1"}, "iPhone 11"},
        {{"iPhone12,3"}, "iPhone 11 Pro"},
        {{"iPhone12,5"}, "iPhone 11 Pro Max"},
        {{"iPhone13,1"}, "iPhone 12 mini"},
        {{"iPhone13,2"}, "iPhone 12"},
        {{"iPhone13,3"}, "iPhone 12 Pro"},
        {{"iPhone13,4"}, "iPhone 12 Pro Max"},
        {{"iPhone14,4"}, "iPhone 13 mini"},
        {{"iPhone14,5"}, "iPhone 13"},
        {{"iPhone14,2"}, "iPhone 13 Pro"},
        {{"iPhone14,3"}, "iPhone 13 Pro Max"},
        {{"iPhone14,7"}, "iPhone 14"},
        {{"iPhone14,8"}, "iPhone 14 Plus"},
        {{"iPhone15,2"}, "iPhone 14 Pro"},
        {{"iPhone15,3"}, "iPhone 14 Pro Max"},
        {{"iPhone8,4"}, "iPhone SE (1st generation)"},
        {{"iPhone12,8"}, "iPhone SE (2nd generation)"},
        {{"iPhone14,6"}, "iPhone SE (3rd generation)"},
        {{"iPad2,1", "iPad2,2", "iPad2,3", "iPad2,4"}, "iPad 2"},
        {{"iPad3,1", "iPad3,2", "iPad3,3"}, "iPad (3rd generation)"},
        {{"iPad3,4", "iPad3,5", "iPad3,6"}, "iPad (4th generation)"},
        {{"iPad6,11", "iPad6,12"}, "iPad (5th generation)"},
        {{"iPad7,5", "iPad7,6"}, "iPad (6th generation)"},
        {{"iPad7,11", "iPad7,12"}, "iPad (7th generation)"},
        {{"iPad11,6", "iPad11,7"}, "iPad (8th generation)"},
        {{"iPad12,1", "iPad12,2"}, "iPad (9th generation)"},
        {{"iPad13,18", "iPad13,19"}, "iPad (10th generation)"},
        {{"iPad4,1", "iPad4,2", "iPad4,3"}, "iPad Air"},
        {{"iPad5,3", "iPad5,4"}, "iPad Air 2"},
        {{"iPad11,3", "iPad11,4"}, "iPad Air (3rd generation)"},
        {{"iPad13,1", "iPad13,2"}, "iPad Air (4th generation)"},
        {{"iPad13,16", "iPad13,17"}, "iPad Air (5th generation)"},
        {{"iPad2,5", "iPad2,6", "iPad2,7"}, "iPad mini"},
        {{"iPad4,4", "iPad4,5", "iPad4,6"}, "iPad mini 2"},
        {{"iPad4,7", "iPad4,8", "iPad4,9"}, "iPad mini 3"},
        {{"iPad5,1", "iPad5,2"}, "iPad mini 4"},
        {{"iPad11,1", "iPad11,2"}, "iPad mini (5th generation)"},
        {{"iPad14,1", "iPad14,2"}, "iPad mini (6th generation)"},
        {{"iPad6,3", "iPad6,4"}, "iPad Pro (9.7-inch)"},
        {{"iPad7,3", "iPad7,4"}, "iPad Pro (10.5-inch)"},
        {{"iPad8,1", "iPad8,2", "iPad8,3", "iPad8,4"}, "iPad Pro (11-inch) (1st generation)"},
        {{"iPad8,9", "iPad8,10"}, "iPad Pro (11-inch) (2nd generation)"},
        {{"iPad13,4", "iPad13,5", "iPad13,6", "iPad13,7"}, "iPad Pro (11-inch) (3rd generation)"},
        {{"iPad14,3", "iPad14,4"}, "iPad Pro (11-inch) (4th generation)"},
        {{"iPad6,7", "iPad6,8"}, "iPad Pro (12.9-inch) (1st generation)"},
        {{"iPad7,1", "iPad7,2"}, "iPad Pro (12.9-inch) (2nd generation)"},
        {{"iPad8,5", "iPad8,6", "iPad8,7", "iPad8,8"}, "iPad Pro (12.9-inch) (3rd generation)"},
        {{"iPad8,11", "iPad8,12"}, "iPad Pro (12.9-inch) (4th generation)"},
        {{"iPad13,8", "iPad13,9", "iPad13,10", "iPad13,11"},
         "iPad Pro (12.9-inch) (5th generation)"},
        {{"iPad14,5", "iPad14,6"}, "iPad Pro (12.9-inch) (6th generation)"},
        {{"AppleTV5,3"}, "Apple TV"},
        {{"AppleTV6,2"}, "Apple TV 4K"},
        {{"AudioAccessory1,1"}, "HomePod"},
        {{"AudioAccessory5,1"}, "HomePod mini"},
    };
    return *table;
}

std::string modelNameForIdentifier(std::string_view identifier,
                                   const std::optional<std::string>& simulatorModelIdentifier) {
    for (const auto& row : deviceModelTable()) {
        for (auto candidate : row.identifiers) {
            if (candidate == identifier) {
                return std::string(row.name);
            }
        }
    }
    if (identifier == "i386" || identifier == "x86_64" || identifier == "arm64") {
        // The simulated model is looked up without a further simulator value, so a variable that
        // names a simulator identifier itself cannot recurse.
        std::string simulated = simulatorModelIdentifier.value_or("iOS");
        return "Simulator " + modelNameForIdentifier(simulated, std::string("iOS"));
    }
    return std::string(identifier);
}

std::string machineIdentifier() {
    utsname names{};
    if (::uname(&names) != 0) {
        return {};
    }
    return std::string(names.machine, ::strnlen(names.machine, sizeof names.machine));
}

const std::string& modelName() {
    static const auto* name = new std::string([] {
        std::optional<std::string> simulated;
        if (const char* value = std::getenv("SIMULATOR_MODEL_IDENTIFIER")) {
            simulated = value;
        }
        return modelNameForIdentifier(machineIdentifier(), simulated);
    }());
    return *name;
}

const std::string& osVersion() {
    static const auto* version = new std::string([] {
        utsname names{};
        if (::uname(&names) != 0) {
            return std::string();
        }
        return std::string(names.release, ::strnlen(names.release, sizeof names.release));
    }());
    return *version;
}

}  // namespace tarn
