#include <kest/kernel_frame/numeric_helpers.h>
#include <kest/kernel_frame/scale.h>
#include <kest/op_kernels/batch_norm_fusion.h>
#include <kest/op_kernels/deployed_ops.h>
#include <kest/op_kernels/fast_softmax.h>
#include <kest/op_kernels/tensor_dump.h>
#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/record_update.h>

#include <unistd.h>

#include <fstream>
#include <iterator>

#include "case.h"

namespace exactness {
namespace {

using Half = unsigned short;

std::vector<int> Shape(Case& c) {
    return {c.Odd(9), 1 + c.Below(1 << 16), 1 + c.Below(1 << 20), c.Odd(1 + c.Below(1 << 24))};
}

CASES(
    util_ProcessScale, [](auto& scale) { return util::ProcessScale(scale); }, c.Real<T>());
CASE(
    ProcessScale, [](auto... args) { return KestCommon::ProcessScale(args...); }, c.Values<float>(c.n),
    c.InPlaceOrOut<float>(), c.Out<int>(c.n), c.n, c.Flag());
OP(ProcessScale, c.Values<float>(c.n), c.InPlaceOrOut<float>(), c.Out<int>(c.n), c.n, c.Flag());
CASE(Clip, KestCommon::Clip<T>, c.Real(), c.Int(), c.Int());
CASE_OF(int, Clip, KestCommon::Clip<T>, c.Int(), c.Int(), c.Int());
CASE(Fp16ToFp32, util::Fp16ToFp32, static_cast<Half>(c.Int()));
CASE(Fp32ToFp16, util::Fp32ToFp16, c.Real());
CASE(DataCastToFloat32Functor, util::DataCastToFloat32Functor<Device, Half>(), c.Values<Half>(c.n), c.Out<float>(c.n),
     c.n);
CASE(DataCastToFloat16Functor, util::DataCastToFloat16Functor<Device, float>(), c.Values<float>(c.n), c.Out<Half>(c.n),
     c.n);
CASE(OnnxTypeToString, util::OnnxTypeToString, c.Below(12));
CASE(GetLengthByDim, util::GetLengthByDim, Shape(c), 7L);
CASE(CheckBalanceFactor, util::CheckBalanceFactor, c.Scales(c.k).data, c.k);

KestTfOp::RetrainDataQuantParam DataFactors(Case& c) {
    return {c.Scales(1).data, c.Offsets(1).data, c.Out<float>(1), c.Out<int>(1)};
}
KestTfOp::RetrainWeightQuantParam WeightFactors(Case& c) {
    return {c.Scales(c.k).data, c.Offsets(c.k).data, c.Out<float>(c.k), c.Out<int>(c.k), c.Odd(c.k) > c.k ? 0 : c.k};
}
KestTfOp::BnParam BatchNorm(Case& c) {
    return {c.Values<float>(c.k), c.Flag() ? c.Values<float>(c.k) : c.Scales(c.k).data, c.Scales(1).data,
            c.Scales(1).data};
}
CASE(FuseScaleWCpu, KestTfOp::FuseScaleWCpu, WeightFactors(c), BatchNorm(c), c.Out<float>(c.k));
OP(CopyDataToHost, KestTfOp::DataQuantFactors{c.Values<float>(1), c.Offsets(1).data, c.Out<float>(1), c.Out<int>(1)});
CASE(CopyFusedDataToHost, KestTfOp::CopyDataToHost<Device, float>(), DataFactors(c), WeightFactors(c), BatchNorm(c),
     c.Out<float>(1), c.Out<float>(c.k));
OP(FetchScaleFunctor, c.Out<float>(c.Large(1 << 17)), c.Values<float>(c.n), c.n);

KestTfOp::DequantInputParam<float> Dequant(Case& c) {
    c.Large(1 << 17);
    auto* const words = c.Out<std::uint64_t>(c.k);
    for (int i = 0; i < c.k; ++i) {
        const float scale = c.Scale();
        std::uint32_t bits;
        std::memcpy(&bits, &scale, sizeof bits);
        const std::uint64_t shift = c.OneIn(4) ? 0 : c.Below(c.OneIn(16) ? 256 : 17);
        words[i] = static_cast<std::uint64_t>(c.Below(1 << 24)) << 40 | shift << 32 | bits;
    }
    const int factor = c.OneIn(4) ? c.Int() | 1 : 1;
    const float* const input = c.Values<float>(c.n);
    const int innerSize = c.Odd(c.Below(c.OneIn(4) ? 100 : 10));
    return {factor, c.n, input, words, c.OneIn(32) ? 0 : c.k, innerSize, !c.OneIn(4), c.Flag(), ""};
}
KestTfOp::WeightQuantInputParam<float> WeightCodes(Case& c) {
    const auto* const codes = c.Values<signed char>(c.Large(1 << 17));
    return {c.n, codes, c.Values<signed char>(c.k), c.Odd(c.Below(40)), c.k, !c.OneIn(4), c.Flag()};
}
OP(OrvaneQuantFunctor,
   KestTfOp::QuantInputParam<float>{c.Large(1 << 17), c.Values<float>(c.n), 1 / c.Scale(),
                                    static_cast<float>(c.Below(256) - 128), c.Bits(1)},
   c.InPlaceOrOut<float>());
CASE(OrvaneDequantInternelCpu, KestTfOp::OrvaneDequantInternelCpu<float>, Dequant(c), c.InPlaceOrOut<float>());
OP(OrvaneDequantFunctor, Dequant(c), c.InPlaceOrOut<float>());
OP(OrvaneAntiQuantFunctor, KestTfOp::AntiQuantInputParam<float>{c.Large(1 << 17), c.Values<float>(c.n), c.Scale()},
   c.InPlaceOrOut<float>());
OP(OrvaneWeightQuantFunctor, WeightCodes(c), c.Out<float>(c.n));

/// Rows of c.k of the c.n elements; the numbers of the series for exp, or others.
KestTfOp::SoftmaxParam Softmax(Case& c) {
    const bool series = c.Flag();
    return {series ? 0.5f : c.Scale(),
            series ? 1.0f / 6 : c.Scale(),
            c.OneIn(16) ? c.Real() : -c.Scale() * 16,
            c.Odd(1),
            c.n,
            {3, c.Odd(c.k)}};
}
OPS(FastSoftmaxFunctor, c.Values<T>(c.Large(1 << 15)), c.InPlaceOrOut<T>(), Softmax(c));
CASES(FindMaxAlongAxis, KestTfOp::FindMaxAlongAxis<T>, c.Values<T>(c.n), std::vector<T>(c.Odd(c.n / c.k), T(-FLT_MAX)),
      Softmax(c));
CASES(ApproximateExp, KestTfOp::ApproximateExp<T>, c.Values<T>(c.Large(1 << 15)), c.Vector<T>(c.Odd(c.n / c.k)),
      c.Out<T>(c.n), Softmax(c));
CASES(ApproximateSoftmax, KestTfOp::ApproximateSoftmax<T>, c.Values<T>(c.Large(1 << 15)),
      std::vector<T>(c.Odd(c.n / c.k)), Softmax(c));

/// The files of all three dumps of a tensor.
template <typename T>
std::string Dumped(Case& c) {
    const std::string name = "exactness" + std::to_string(getpid());
    const std::string file = KestCommon::ConcatName("/tmp", name, 7);
    const T* const data = c.Values<T>(c.n);
    const std::vector<float> shape = c.Vector<float>(c.Below(6));
    const auto length = static_cast<unsigned int>(c.Odd(static_cast<int>(shape.size())));
    std::string bytes;
    const auto take = [&] {
        std::ifstream in(file, std::ios::binary);
        bytes.append(std::istreambuf_iterator<char>(in), {});
        unlink(file.c_str());
    };
    KestCommon::DumpData(data, c.n, {file, shape, length}), take();
    KestCommon::DumpDataWithType(data, c.n, {file, shape, length}), take();
    c.Result(kest_tf::DumpFunctor<Device, T>()(data, c.n, {"/tmp", name, 7, shape, length})), take();
    return bytes;
}
#define COPY kest_tf::CopyDataFunctor<Device, T>(), c.Values<T>(c.n), c.n, c.Out<T>(c.n)
CASES(Dump, Dumped<T>, c);
CASE_OF(int, Dump, Dumped<T>, c);
CASE_OF(Half, Dump, Dumped<T>, c);
CASES(CopyDataFunctor, COPY);
CASE_OF(int, CopyDataFunctor, COPY);
CASE_OF(Half, CopyDataFunctor, COPY);

/// The semaphore of the record is held for the call, and afterwards unless the call fails.
int DeqScale(float* deqScale, const float* scaleW, float scaleD, int length) {
    sem_t& semaphore = KestTfOp::Initializer::GetInstance().semaphore;
    sem_wait(&semaphore);
    const int status = KestTfOp::ComputeDeqScale(deqScale, scaleW, scaleD, length);
    if (status == STATUS_OK) sem_post(&semaphore);
    return status;
}
std::string Text(Case& c) {
    kest_tf::FloatListData list("scale_w", kest_tf::FIELD_FLOAT, 1);
    list.items = c.Vector<float>(1 + c.n % 10);
    list.hasValue = true;
    std::string text = list.Dump();
    kest_tf::FloatData scale("scale_d", kest_tf::FIELD_FLOAT, 1);
    Call{c, [&](std::string& token) { return kest_tf::FloatProto("scale_d", 1).Parse(token, scale); },
         text.substr(text.find(':') + 1)};
    c.Result(scale.scalar);
    return text;
}
CASE(ValueCheck, KestTfOp::ValueCheck, c.Real());
CASE(ComputeDeqScale, DeqScale, c.Out<float>(c.k), c.Scales(c.k).data, c.Scale(), c.k);
CASE(RecordText, Text, c);

}  // namespace
}  // namespace exactness
