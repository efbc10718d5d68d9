// Feeds arbitrary text to the parameter-section reader.
#include "tovra/zk_parameter.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char separator = size > 0 ? static_cast<char>(data[0]) : '\n';

    std::string name, body, firstName;
    ZkParameter::TagMap map;
    for (const char* p = ZkParameter::getSection(text.c_str(), name, body); p != nullptr;
         p = ZkParameter::getSection(p, name, body)) {
        if (firstName.empty()) firstName = name;
        ZkParameter::sectionToMap(body, map, '\n', true);
        ZkParameter::sectionToMap(body, map, separator, false);
        const std::string written = ZkParameter::mapToSection(map, separator, "> ");
        ZkParameter::TagMap back;
        ZkParameter::sectionToMap(written, back, separator, false);
    }
    ZkParameter::getSection(text, firstName);
    ZkParameter::sectionToMap(text, map, ':', true);
    return 0;
}
