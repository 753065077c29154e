#include "explain.h"

outcome run_explain(std::uint32_t code)
{
    const result_description result = describe_result(code);
    nlohmann::ordered_json json = json_of(result);
    json["exit"] = static_cast<int>(result.exit); // of a command that ends with this code
    return {find_result(code) != nullptr ? EXIT_DONE : EXIT_NOT_FOUND,
            result_sentence(result),
            {{"flash", result.flash}, {"next", result.next}},
            json};
}
