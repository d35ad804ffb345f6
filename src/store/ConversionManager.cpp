#include "tarn/store/ConversionManager.h"

#include "tarn/config/TarnState.h"
#include "tarn/core/Fatal.h"
#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn {

ConversionManager& ConversionManager::shared() {
    return detail::SharedInstance<ConversionManager, 500>::get();
}

std::int64_t ConversionManager::millisecondStamp(Date now) {
    double milliseconds = now.secondsSince1970 * 1000.0;
    // [-2^63, 2^63): the doubles that convert to a 64-bit integer without overflow.
    if (!(milliseconds >= -9223372036854775808.0 && milliseconds < 9223372036854775808.0)) {
        TARN_FATAL("The conversion time does not fit a 64-bit integer");
    }
    return static_cast<std::int64_t>(milliseconds);
}

void ConversionManager::armConversion(const std::optional<std::string>& communicationCode,
                                      const std::optional<std::string>& conversionEvent,
                                      const std::string& eventName) {
    if (!conversionEvent) {
        return;
    }
    // Milliseconds read as seconds: the scale every stored marker carries.
    auto stamp = millisecondStamp(Date::now());
    ConversionItem item{communicationCode, conversionEvent,
                        Date::fromSecondsSince1970(static_cast<double>(stamp))};
    CoreDataManager::shared().saveConversion(item, eventName, [&] {
        log("Conversion event saved with name: " + item.conversionName.value_or(""), logtag,
            LogLevel::info);
    });
}

std::optional<std::string> ConversionManager::checkConversion(const std::string& eventName) {
    return checkConversion(eventName, TarnState::shared().actorId.get());
}

std::optional<std::string> ConversionManager::checkConversion(const std::string& eventName,
                                                              const std::string& actorId) {
    std::optional<std::string> code;
    CoreDataManager::shared().findConversion(eventName, actorId,
                                             [&](std::optional<ConversionItem> marker) {
                                                 if (marker) {
                                                     code = marker->communicationCode;
                                                 }
                                             });
    return code;
}

void ConversionManager::applyConversionCode(nlohmann::json& eventDictionary,
                                            const std::optional<std::string>& communicationCode) {
    if (!eventDictionary.is_object()) {
        return;
    }
    nlohmann::json parameters = nlohmann::json::object();
    if (auto it = eventDictionary.find("parameters");
        it != eventDictionary.end() && it->is_object()) {
        parameters = std::move(*it);
    }
    if (communicationCode) {
        parameters[kConversionCommunicationCodeKey] = *communicationCode;
    } else {
        parameters.erase(kConversionCommunicationCodeKey);
    }
    eventDictionary["parameters"] = std::move(parameters);
}

}  // namespace tarn
