// Arbitrary decision-file content to the reader the service runs at start. What it keeps must be
// within the history's bounds, written back under the file's bound, read back the same (nothing
// left out the second time), and carried whole through the D-Bus form the diagnostics use.
#include <cstdint>
#include <string>

#include "DecisionLog.h"
#include "FuzzEnvironment.h"
#include "JsonVariant.h"

namespace {

template <typename Record>
void CheckDbusForm(const Record &record)
{
    const Json::Value json = ToJson(record);
    GVariant *dictionary = g_variant_ref_sink(JsonToVariant(json));
    FUZZ_CHECK(VariantToJson(dictionary) == json);
    g_variant_unref(dictionary);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    CDecisionLog::Contents contents;
    std::string fault;
    size_t skipped = 0;
    if (!CDecisionLog::Parse(std::string(reinterpret_cast<const char *>(data), size), contents, fault, skipped))
        return 0;
    FUZZ_CHECK(contents.history.size() <= CDecisionLog::kMaxHistory);
    FUZZ_CHECK(contents.verdicts.size() <= CDecisionLog::kMaxVerdicts);
    const std::string text = CDecisionLog::Serialize(contents);
    FUZZ_CHECK(text.size() <= CDecisionLog::kMaxFileBytes);

    CDecisionLog::Contents again;
    FUZZ_CHECK(CDecisionLog::Parse(text, again, fault, skipped));
    FUZZ_CHECK(skipped == 0);
    FUZZ_CHECK(CDecisionLog::Serialize(again) == text);
    for (const Decision &decision : contents.history)
        CheckDbusForm(decision);
    for (const Verdict &verdict : contents.verdicts)
        CheckDbusForm(verdict);
    return 0;
}
