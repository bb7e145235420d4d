#ifndef KEST_TESTS_RECORD_PARSE_H_
#define KEST_TESTS_RECORD_PARSE_H_

#include <kest/kernel_frame/status.h>
#include <kest/record/proto_simulator/record_data.h>
#include <kest/record/proto_simulator/record_proto.h>

#include <string>

struct Root : kest_tf::InnerData {
    Root() : InnerData("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0) {}
};

/// Parses the text of a file.
inline int Parse(std::string text, kest_tf::InnerData& root) {
    kest_tf::InnerProto parser("InnerScaleOffsetRecord", 0);
    const int status = parser.Init();
    return status == STATUS_OK ? parser.Parse(text, root) : status;
}

#endif  // KEST_TESTS_RECORD_PARSE_H_
