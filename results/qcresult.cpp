#include "results/qcresult.h"

namespace tarvoqc {

std::string_view streamTypeText(StreamType type)
{
    switch (type) {
    case StreamType::Video:
        return "Video";
    case StreamType::Audio:
        return "Audio";
    case StreamType::Data:
        return "Data";
    case StreamType::Subtitle:
        return "Subtitle";
    case StreamType::Attach:
        return "Attach";
    default:
        return "Unk";
    }
}

} // namespace tarvoqc
