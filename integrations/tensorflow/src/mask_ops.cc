#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

constexpr int64_t kMaxCount = std::numeric_limits<int>::max();

// A kernel for each element type.
#define REGISTER_FLOATING(NAME, KERNEL)                                                                           \
    REGISTER_KERNEL_BUILDER(Name(NAME).Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"), KERNEL<float>); \
    REGISTER_KERNEL_BUILDER(Name(NAME).Device(tensorflow::DEVICE_CPU).TypeConstraint<double>("T"), KERNEL<double>)

template <typename T>
class GenerateMaskOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        const Tensor& rows = context->input(0);
        const Tensor& columns = context->input(1);
        KestTfOp::MaskGenParam<T> param{};
        OP_REQUIRES_OK(context, CountOf(rows, param.rowNum));
        OP_REQUIRES_OK(context, CountOf(columns, param.colNum));
        OP_REQUIRES_OK(context, CheckPerChannel(rows, "rows", param.rowNum));
        OP_REQUIRES_OK(context, CheckPerChannel(columns, "columns", param.colNum));
        Tensor* mask = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {param.rowNum, param.colNum}, &mask));
        OP_REQUIRES_OK(context, CountOf(*mask, param.length));
        Tensor saved;  // the graph keeps masks itself
        OP_REQUIRES_OK(context, context->allocate_temp(mask->dtype(), mask->shape(), &saved));
        param.outMask = mask->flat<T>().data();
        param.savedMask = saved.flat<T>().data();
        const T* rowMask = rows.flat<T>().data();
        const T* colMask = columns.flat<T>().data();
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::GenerateMask<Device, T>()(rowMask, colMask, param); }));
    }
};

REGISTER_OP("KestGenerateMask")
    .Input("rows: T")
    .Input("columns: T")
    .Output("mask: T")
    .Attr("T: {float, double}")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle rows;
        tensorflow::shape_inference::ShapeHandle columns;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 1, &rows));
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 1, &columns));
        context->set_output(0, context->Matrix(context->Dim(rows, 0), context->Dim(columns, 0)));
        return tensorflow::OkStatus();
    })
    .Doc("The mask of two axes: 1 where neither the row nor the column is 0.");
REGISTER_FLOATING("KestGenerateMask", GenerateMaskOp);

template <typename T>
class ApplyMaskOp : public OpKernel {
public:
    explicit ApplyMaskOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("row_axis", &rowAxis_));
        OP_REQUIRES_OK(context, context->GetAttr("column_axis", &columnAxis_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        const Tensor& mask = context->input(1);
        KestTfOp::MaskParam param{};
        OP_REQUIRES_OK(context, CountOf(x, param.length));
        Channels rows;
        Channels columns;
        OP_REQUIRES_OK(context, ChannelsOf(x, rowAxis_, rows));
        OP_REQUIRES_OK(context, ChannelsOf(x, columnAxis_, columns));
        OP_REQUIRES(context, mask.dims() == 2 && mask.dim_size(0) == rows.count && mask.dim_size(1) == columns.count,
                    tensorflow::errors::InvalidArgument("mask has to be of shape [", rows.count, ",", columns.count,
                                                        "] and is of shape ", mask.shape().DebugString()));
        Tensor* y = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
        param.rowNum = rows.count;
        param.rowStride = rows.inner;
        param.colNum = columns.count;
        param.colStride = columns.inner;
        const T* entries = mask.flat<T>().data();
        const T* data = x.flat<T>().data();
        T* out = y->flat<T>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] { return KestTfOp::MaskOut<Device, T>()(param, entries, data, out); }));
    }

private:
    int rowAxis_;
    int columnAxis_;
};

REGISTER_OP("KestApplyMask")
    .Input("x: T")
    .Input("mask: T")
    .Output("y: T")
    .Attr("T: {float, double}")
    .Attr("row_axis: int = -2")
    .Attr("column_axis: int = -1")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle mask;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 2, &mask));
        context->set_output(0, context->input(0));
        return tensorflow::OkStatus();
    })
    .Doc("x times the entry of the mask for its places along two axes.");
REGISTER_FLOATING("KestApplyMask", ApplyMaskOp);

template <typename T>
class NOfMMaskOp : public OpKernel {
public:
    explicit NOfMMaskOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("keep", &keep_));
        OP_REQUIRES_OK(context, context->GetAttr("group_size", &groupSize_));
        OP_REQUIRES_OK(context, context->GetAttr("axis", &axis_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& weights = context->input(0);
        const Tensor& select = context->input(1);
        int length = 0;
        OP_REQUIRES_OK(context, CountOf(weights, length));
        Channels channels;
        OP_REQUIRES_OK(context, ChannelsOf(weights, axis_, channels));
        OP_REQUIRES_OK(context, CheckPerChannel(select, "select", channels.count));
        constexpr int kMaxChannels = 1 << 24;  // up to which kest counts groups exactly
        OP_REQUIRES(
            context, channels.count <= kMaxChannels,
            tensorflow::errors::InvalidArgument("there are ", channels.count, " channels, more than ", kMaxChannels));
        Tensor* mask = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, weights.shape(), &mask));
        T* out = mask->flat<T>().data();
        std::fill_n(out, length, T{1});  // of the channels that take no part
        if (length == 0) return;

        // Room for all channels in groups, whichever are selected.
        const int64_t numGroups = (int64_t{channels.count} + groupSize_ - 1) / groupSize_;
        const int64_t room = length / channels.count * numGroups * groupSize_;
        OP_REQUIRES(context, room <= kMaxCount,
                    tensorflow::errors::InvalidArgument("the groups hold ", room, " elements, more than kest counts"));
        Tensor gathered;
        OP_REQUIRES_OK(context, context->allocate_temp(weights.dtype(), {room}, &gathered));
        SelectiveMaskGenKernel::SelectivePruneParam param{};
        param.axis = static_cast<unsigned int>(axis_ < 0 ? axis_ + weights.dims() : axis_);
        param.groupSize = static_cast<unsigned int>(groupSize_);
        param.keepNum = static_cast<unsigned int>(keep_);
        for (int a = 0; a < weights.dims(); ++a) {
            param.shape.push_back(static_cast<unsigned int>(weights.dim_size(a)));
        }
        const T* data = weights.flat<T>().data();
        const T* selected = select.flat<T>().data();
        T* workspace = gathered.flat<T>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return SelectiveMaskGenKernel::ComputeMask<Device, T>()(data, selected, workspace, param,
                                                                                   out);
                       }));
    }

private:
    int keep_;
    int groupSize_;
    int axis_;
};

REGISTER_OP("KestNOfMMask")
    .Input("weights: T")
    .Input("select: T")
    .Output("mask: T")
    .Attr("T: {float, double}")
    .Attr("keep: int >= 0 = 2")
    .Attr("group_size: int >= 1 = 4")
    .Attr("axis: int = -2")
    .SetShapeFn([](InferenceContext* context) {
        int axis;
        TF_RETURN_IF_ERROR(context->GetAttr("axis", &axis));
        context->set_output(0, context->input(0));
        return MergeChannels(context, 0, axis, 1);
    })
    .Doc("1 for the `keep` largest magnitudes of every group_size consecutive selected channels along axis, else 0.");
REGISTER_FLOATING("KestNOfMMask", NOfMMaskOp);

template <typename T>
class ChannelPruneMaskOp : public OpKernel {
public:
    explicit ChannelPruneMaskOp(OpKernelConstruction* context) : OpKernel(context) {
        std::vector<int> sizes;
        std::vector<int> counts;
        OP_REQUIRES_OK(context, context->GetAttr("axes", &axes_));
        OP_REQUIRES_OK(context, context->GetAttr("group_sizes", &sizes));
        OP_REQUIRES_OK(context, context->GetAttr("prune_counts", &counts));
        OP_REQUIRES(context, static_cast<int>(axes_.size()) == context->num_inputs(),
                    tensorflow::errors::InvalidArgument("there are ", axes_.size(), " axes for ", context->num_inputs(),
                                                        " tensors"));
        OP_REQUIRES(context, sizes.size() == counts.size(),
                    tensorflow::errors::InvalidArgument("there are ", counts.size(), " prune_counts for ", sizes.size(),
                                                        " groups"));
        int64_t numChannels = 0;
        for (std::size_t g = 0; g < sizes.size(); ++g) {
            OP_REQUIRES(context, sizes[g] >= 1 && counts[g] >= 0 && counts[g] <= sizes[g],
                        tensorflow::errors::InvalidArgument("group ", g, " cannot prune ", counts[g], " of ", sizes[g],
                                                            " channels"));
            numChannels += sizes[g];
        }
        OP_REQUIRES(context, numChannels <= kMaxCount,
                    tensorflow::errors::InvalidArgument(numChannels, " channels are more than kest counts"));
        param_.numChannels = static_cast<int>(numChannels);
        param_.numGroups = static_cast<int>(sizes.size());
        param_.groupChannels.assign(sizes.begin(), sizes.end());
        param_.groupPruneNum.assign(counts.begin(), counts.end());
    }

    void Compute(OpKernelContext* context) override {
        std::vector<const T*> tensors;
        std::vector<int> lengths;
        std::vector<int> innerJumps;
        for (int i = 0; i < context->num_inputs(); ++i) {
            const Tensor& tensor = context->input(i);
            int length = 0;
            OP_REQUIRES_OK(context, CountOf(tensor, length));
            Channels channels;
            OP_REQUIRES_OK(context, ChannelsOf(tensor, axes_[i], channels));
            OP_REQUIRES(context, length > 0 && channels.count == param_.numChannels,
                        tensorflow::errors::InvalidArgument("tensor ", i, " of shape ", tensor.shape().DebugString(),
                                                            " does not hold elements of ", param_.numChannels,
                                                            " channels along axis ", axes_[i]));
            tensors.push_back(tensor.flat<T>().data());
            lengths.push_back(length);
            innerJumps.push_back(channels.inner);
        }
        Tensor* mask = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {param_.numChannels}, &mask));
        // kest writes a mask for each group, and with several of them one more of all channels: the one wanted here.
        T* out = mask->flat<T>().data();
        std::vector<T> ofGroups(param_.numGroups > 1 ? param_.numChannels : 0);
        std::vector<T*> masks;
        if (param_.numGroups > 1) {
            T* ofGroup = ofGroups.data();
            for (const unsigned int size : param_.groupChannels) {
                masks.push_back(ofGroup);
                ofGroup += size;
            }
        }
        masks.push_back(out);
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return KestCommon::ComputeRemainOut<Device, T>()(tensors, lengths, innerJumps, param_,
                                                                            masks);
                       }));
    }

private:
    std::vector<int> axes_;
    KestCommon::PruneParam param_{};
};

REGISTER_OP("KestChannelPruneMask")
    .Input("tensors: N * T")
    .Output("mask: T")
    .Attr("N: int >= 1")
    .Attr("T: {float, double}")
    .Attr("axes: list(int)")
    .Attr("group_sizes: list(int) >= 1")
    .Attr("prune_counts: list(int) >= 1")
    .SetShapeFn([](InferenceContext* context) {
        std::vector<int> sizes;
        TF_RETURN_IF_ERROR(context->GetAttr("group_sizes", &sizes));
        int64_t numChannels = 0;
        for (const int size : sizes) numChannels += std::max(size, 0);  // the kernel reports those below 1
        context->set_output(0, context->Vector(numChannels));
        return tensorflow::OkStatus();
    })
    .Doc("1 for channels to keep, 0 for those of the smallest norms of each group.");
REGISTER_FLOATING("KestChannelPruneMask", ChannelPruneMaskOp);

}  // namespace
}  // namespace kest_ops
