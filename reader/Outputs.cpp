// SPDX-License-Identifier: Apache-2.0
#include "reader/Outputs.h"

#include "reader/OutputForms.h"

namespace vnlog {

bool findOutputForm(std::string_view word, OutputForm* form) {
    constexpr struct {
        std::string_view word;
        OutputForm form;
    } kForms[] = {{"short", OutputForm::Short},
                  {"long", OutputForm::Long},
                  {"iso", OutputForm::Iso},
                  {"json", OutputForm::Json},
                  {"otlp", OutputForm::Otlp}};
    for (const auto& known : kForms) {
        if (known.word != word)
            continue;
        *form = known.form;
        return true;
    }
    return false;
}

std::unique_ptr<RecordSink> makeOutput(OutputForm form, const OutputStyle& style, const RunHistory& history,
                                       TextOut& out) {
    switch (form) {
    case OutputForm::Long:
        return makeLongOutput(style, out);
    case OutputForm::Iso:
        return makeIsoOutput(style, out);
    case OutputForm::Json:
        return makeJsonOutput(history, out);
    case OutputForm::Otlp:
        return makeOtlpOutput(history, out);
    case OutputForm::Short:
        break;
    }
    return makeShortOutput(style, out);
}

} // namespace vnlog
