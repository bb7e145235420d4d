#include <kest/op_kernels/tensor_dump.h>

#include <string>
#include <type_traits>

#include "kest_ops.h"

namespace kest_ops {
namespace {

template <typename T>
class DumpOp : public Kernel {
public:
    explicit DumpOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("directory", &directory_));
        Check(context, context->GetAttr("tensor_name", &tensorName_));
    }

private:
    Status Call(OpKernelContext* context) override {
        using Element = std::conditional_t<std::is_same_v<T, Eigen::half>, unsigned short, T>;
        const Tensor& x = context->input(0);
        int length = 0;
        int batch = 0;
        TF_RETURN_IF_ERROR(CountOf(x, length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "batch", batch));
        if (batch < 0) return errors::InvalidArgument("batch is negative: ", batch);
        kest_tf::DumpParam param{directory_, tensorName_, static_cast<unsigned int>(batch), {}, 0};
        for (int a = 0; a < x.dims(); ++a) param.shape.push_back(static_cast<float>(x.dim_size(a)));
        param.shapeLength = static_cast<unsigned int>(x.dims());
        const auto* data = reinterpret_cast<const Element*>(x.flat<T>().data());
        util::LogCapture capture;  // the status is always 0, a line tells of a failure
        kest_tf::DumpFunctor<Device, Element>()(data, static_cast<unsigned int>(length), param);
        return capture.lines.empty() ? OkStatus() : errors::InvalidArgument("failed: ", capture.lines);
    }

    std::string directory_;
    std::string tensorName_;
};

REGISTER_OP("KestDump")
    .Input("x: T")
    .Input("batch: int32")
    .Attr("T: {float, double, int32, half}")
    .Attr("directory: string")
    .Attr("tensor_name: string")
    .SetIsStateful()
    .SetShapeFn([](InferenceContext* context) { return CheckRank(context, 1, 0); })
    .Doc("Writes x to <directory>/<tensor_name>_batch<batch>.bin: element type, shape, elements.");
#define REGISTER_DUMP(T) \
    REGISTER_KERNEL_BUILDER(Name("KestDump").Device(tensorflow::DEVICE_CPU).TypeConstraint<T>("T"), DumpOp<T>)
REGISTER_DUMP(float);
REGISTER_DUMP(double);
REGISTER_DUMP(int);
REGISTER_DUMP(Eigen::half);

}  // namespace
}  // namespace kest_ops
