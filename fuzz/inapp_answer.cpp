// The in-app answer from the server: decoding never throws or crashes, an error names no more than
// a short excerpt of the input, and a decoded answer encodes to text that decodes again.
#include "FuzzSupport.h"
#include "tarn/inapp/AppCommunicationCoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    auto text = tarn::fuzz::text(data, size);
    auto answer = tarn::decodeAppCommunication(text);
    if (!answer) {
        if (answer.error().localizedDescription().size() > 1024) {
            tarn::fuzz::violated("a decoding error quotes too much of the input");
        }
        return 0;
    }
    if (!tarn::decodeAppCommunication(tarn::encode(answer.value()))) {
        tarn::fuzz::violated("an encoded answer does not decode");
    }
    return 0;
}
