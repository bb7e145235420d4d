#include <kest/activation_calib/ifmr.h>
#include <kest/record/proto_simulator/record_data.h>
#include <kest/record/record_update.h>
#include <kest/weight_quant/arq.h>

#include <cstdio>

// A user's program: one name of each kind that the library exports.
int main() {
    float weights[] = {-1.0f, 0.5f};
    float scale = 0;
    int offset = 7;
    const int status =
        KestCommon::ArqQuant(weights, 2u, KestCommon::ArqParam{8, false, false}, {1, &scale}, {1, &offset});

    KestTfOp::InputParam<float> input{{}, 2, weights};
    int batchIndex = 0, batchNum = 2;
    const int pending = KestTfOp::QuantIfmrFunctor<util::ThreadPoolDevice, float>()(
        {0, 8, true, 1, 1, 1, 1, 1}, batchIndex, batchNum, input, {nullptr, nullptr, nullptr, nullptr});

    kest_tf::InnerData root("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0);
    kest_tf::RecordData* record = root.AddRecord();
    record->SetKey("conv1");
    record->Value()->SetScaleD(scale);
    kest_tf::Data* base = &root;  // virtual slots, seen from outside

    const bool good = status == STATUS_OK && pending == STATUS_OK && scale == 0.0078125f && offset == 0 &&
                      KestTfOp::ValueCheck(scale) &&
                      base->Dump() == "record {\n  key: \"conv1\"\n  value {\n    scale_d: 0.0078125\n  }\n}\n";
    std::puts(good ? "consumer: good" : "consumer: BAD");
    return good ? 0 : 1;
}
