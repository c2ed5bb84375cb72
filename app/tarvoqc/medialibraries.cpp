#include "app/tarvoqc/medialibraries.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace tarvoqc {

std::vector<LibraryVersion> mediaLibraryVersions()
{
    return {
        {"avcodec", LIBAVCODEC_VERSION_INT, avcodec_version()},
        {"avformat", LIBAVFORMAT_VERSION_INT, avformat_version()},
        {"avutil", LIBAVUTIL_VERSION_INT, avutil_version()},
        {"swresample", LIBSWRESAMPLE_VERSION_INT, swresample_version()},
        {"swscale", LIBSWSCALE_VERSION_INT, swscale_version()},
    };
}

} // namespace tarvoqc
