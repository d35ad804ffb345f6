// An event body as the dev server receives it from outside: the check never throws or crashes,
// names every problem with a path inside the body, and finds none in a body it passed once it is
// printed and read back.
#include "FuzzSupport.h"
#include "devserver/EventCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    auto text = tarn::fuzz::text(data, size);
    std::vector<tarn::devserver::BodyProblem> problems;
    try {
        problems = tarn::devserver::checkEventText(text);
    } catch (...) {
        tarn::fuzz::violated("the event check threw");
    }
    auto body = nlohmann::json::parse(text, nullptr, false);
    if (body.is_discarded()) {
        if (problems.size() != 1) {
            tarn::fuzz::violated("text that is not JSON gives other than one problem");
        }
        return 0;
    }
    for (const auto& problem : problems) {
        if (problem.message.empty() || problem.text().empty()) {
            tarn::fuzz::violated("a problem without a message");
        }
    }
    if (problems.empty() && !tarn::devserver::checkEventText(
                                body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
                                 .empty()) {
        tarn::fuzz::violated("a body that passed fails once printed and read back");
    }
    return 0;
}
