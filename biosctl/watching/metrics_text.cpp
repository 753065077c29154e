#include "metrics_text.h"

namespace
{

std::string escaped(const std::string &text, bool quotes)
{
    std::string safe;
    for (const char character : text) {
        if (character == '\\' || (quotes && character == '"'))
            safe += '\\';
        if (character == '\n')
            safe += "\\n";
        else
            safe += character;
    }
    return safe;
}

std::string labels_text(const metric_sample &sample)
{
    std::string text;
    for (const auto &[name, value] : sample.labels)
        text += (text.empty() ? "{" : ",") + name + "=\"" + escaped(value, true) + "\"";
    return text.empty() ? "" : text + "}";
}

} // namespace

text_report metrics_text(std::span<const metric_family> families)
{
    text_report report;
    for (const metric_family &family : families) {
        if (family.samples.empty())
            continue;
        const std::string name = family.name;
        report.push_back(text_line{"# HELP " + name + " " + escaped(family.help, false)});
        report.push_back(text_line{"# TYPE " + name + " " + family.type});
        for (const metric_sample &sample : family.samples)
            report.push_back(text_line{name + sample.suffix + labels_text(sample) + " " + sample.value});
    }
    return report;
}

nlohmann::ordered_json metrics_json(std::span<const metric_family> families)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const metric_family &family : families) {
        nlohmann::ordered_json samples = nlohmann::ordered_json::array();
        for (const metric_sample &sample : family.samples) {
            nlohmann::ordered_json labels = nlohmann::ordered_json::object();
            for (const auto &[name, value] : sample.labels)
                labels[name] = value;
            samples.push_back({{"name", family.name + sample.suffix}, {"labels", labels}, {"value", sample.value}});
        }
        array.push_back(
            {{"name", family.name}, {"type", family.type}, {"help", family.help}, {"samples", samples}});
    }
    return array;
}
