#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

template <typename T>
class GenerateMaskOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& rows = context->input(0);
        const Tensor& columns = context->input(1);
        KestTfOp::MaskGenParam<T> param{};
        TF_RETURN_IF_ERROR(CountOf(rows, param.rowNum));
        TF_RETURN_IF_ERROR(CountOf(columns, param.colNum));
        TF_RETURN_IF_ERROR(CheckPerChannel(rows, "rows", param.rowNum));
        TF_RETURN_IF_ERROR(CheckPerChannel(columns, "columns", param.colNum));
        const int64_t length = int64_t{param.rowNum} * param.colNum;
        if (length > kMaxCount)
            return errors::InvalidArgument("a mask of ", length, " entries is more than kest counts");
        TF_RETURN_IF_ERROR(Allocate(context, 0, {param.rowNum, param.colNum}, param.outMask));
        std::vector<T> saved(length);  // the graph keeps masks itself
        param.length = static_cast<int>(length);
        param.savedMask = saved.data();
        return Run([&] {
            return KestTfOp::GenerateMask<Device, T>()(rows.flat<T>().data(), columns.flat<T>().data(), param);
        });
    }
};

REGISTER_OP("KestGenerateMask")
    .Input("rows: T")
    .Input("columns: T")
    .Output("mask: T")
    .Attr("T: {float, double}")
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle rows;
        ShapeHandle columns;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 1, &rows));
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 1, &columns));
        context->set_output(0, context->Matrix(context->Dim(rows, 0), context->Dim(columns, 0)));
        return OkStatus();
    })
    .Doc("The mask of two axes: 1 where neither the row nor the column is 0.");
REGISTER_FLOATING("KestGenerateMask", GenerateMaskOp);

template <typename T>
class ApplyMaskOp : public Kernel {
public:
    explicit ApplyMaskOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("row_axis", &rowAxis_));
        Check(context, context->GetAttr("column_axis", &columnAxis_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        const Tensor& mask = context->input(1);
        KestTfOp::MaskParam param{};
        TF_RETURN_IF_ERROR(CountOf(x, param.length));
        Channels rows;
        Channels columns;
        TF_RETURN_IF_ERROR(ChannelsOf(x, rowAxis_, rows));
        TF_RETURN_IF_ERROR(ChannelsOf(x, columnAxis_, columns));
        if (mask.dims() != 2 || mask.dim_size(0) != rows.count || mask.dim_size(1) != columns.count) {
            return errors::InvalidArgument("mask has to be of shape [", rows.count, ",", columns.count,
                                           "] and is of shape ", mask.shape().DebugString());
        }
        T* y = nullptr;
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, y));
        param.rowNum = rows.count;
        param.rowStride = rows.inner;
        param.colNum = columns.count;
        param.colStride = columns.inner;
        return Run([&] { return KestTfOp::MaskOut<Device, T>()(param, mask.flat<T>().data(), x.flat<T>().data(), y); });
    }

    int rowAxis_ = 0;
    int columnAxis_ = 0;
};

REGISTER_OP("KestApplyMask")
    .Input("x: T")
    .Input("mask: T")
    .Output("y: T")
    .Attr("T: {float, double}")
    .Attr("row_axis: int = -2")
    .Attr("column_axis: int = -1")
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle mask;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 2, &mask));
        context->set_output(0, context->input(0));
        int rowAxis;
        int columnAxis;
        TF_RETURN_IF_ERROR(context->GetAttr("row_axis", &rowAxis));
        TF_RETURN_IF_ERROR(context->GetAttr("column_axis", &columnAxis));
        TF_RETURN_IF_ERROR(MergeAxis(context, 0, rowAxis, context->Dim(mask, 0)));
        return MergeAxis(context, 0, columnAxis, context->Dim(mask, 1));
    })
    .Doc("x times the entry of the mask for its places along two axes.");
REGISTER_FLOATING("KestApplyMask", ApplyMaskOp);

template <typename T>
class NOfMMaskOp : public Kernel {
public:
    explicit NOfMMaskOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("keep", &keep_));
        Check(context, context->GetAttr("group_size", &groupSize_));
        Check(context, context->GetAttr("axis", &axis_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& weights = context->input(0);
        const Tensor& select = context->input(1);
        int length = 0;
        TF_RETURN_IF_ERROR(CountOf(weights, length));
        Channels channels;
        TF_RETURN_IF_ERROR(ChannelsOf(weights, axis_, channels));
        TF_RETURN_IF_ERROR(CheckPerChannel(select, "select", channels.count));
        constexpr int kMaxChannels = 1 << 24;  // up to which kest counts groups exactly
        if (channels.count > kMaxChannels) {
            return errors::InvalidArgument("there are ", channels.count, " channels, more than ", kMaxChannels);
        }
        T* mask = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, weights.shape(), mask));
        std::fill_n(mask, length, T{1});  // of the channels that take no part
        if (length == 0) return OkStatus();

        // Room for all channels in groups, whichever are selected.
        const int64_t numGroups = (int64_t{channels.count} + groupSize_ - 1) / groupSize_;
        const int64_t room = length / channels.count * numGroups * groupSize_;
        if (room > kMaxCount) {
            return errors::InvalidArgument("the groups hold ", room, " elements, more than kest counts");
        }
        std::vector<T> gathered(room);
        SelectiveMaskGenKernel::SelectivePruneParam param{};
        param.axis = static_cast<unsigned int>(axis_ < 0 ? axis_ + weights.dims() : axis_);
        param.groupSize = static_cast<unsigned int>(groupSize_);
        param.keepNum = static_cast<unsigned int>(keep_);
        for (int a = 0; a < weights.dims(); ++a) {
            param.shape.push_back(static_cast<unsigned int>(weights.dim_size(a)));
        }
        return Run([&] {
            return SelectiveMaskGenKernel::ComputeMask<Device, T>()(weights.flat<T>().data(), select.flat<T>().data(),
                                                                    gathered.data(), param, mask);
        });
    }

    int keep_ = 0;
    int groupSize_ = 0;
    int axis_ = 0;
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
class ChannelPruneMaskOp : public Kernel {
public:
    explicit ChannelPruneMaskOp(OpKernelConstruction* context) : Kernel(context) { Check(context, Read(context)); }

private:
    Status Read(OpKernelConstruction* context) {
        std::vector<int> sizes;
        std::vector<int> counts;
        TF_RETURN_IF_ERROR(context->GetAttr("axes", &axes_));
        TF_RETURN_IF_ERROR(context->GetAttr("group_sizes", &sizes));
        TF_RETURN_IF_ERROR(context->GetAttr("prune_counts", &counts));
        if (static_cast<int>(axes_.size()) != context->num_inputs()) {
            return errors::InvalidArgument("there are ", axes_.size(), " axes for ", context->num_inputs(), " tensors");
        }
        if (sizes.size() != counts.size()) {
            return errors::InvalidArgument("there are ", counts.size(), " prune_counts for ", sizes.size(), " groups");
        }
        int64_t numChannels = 0;
        for (std::size_t g = 0; g < sizes.size(); ++g) {
            if (sizes[g] < 1 || counts[g] < 0 || counts[g] > sizes[g]) {
                return errors::InvalidArgument("group ", g, " cannot prune ", counts[g], " of ", sizes[g], " channels");
            }
            numChannels += sizes[g];
        }
        if (numChannels > kMaxCount) {
            return errors::InvalidArgument(numChannels, " channels are more than kest counts");
        }
        param_.numChannels = static_cast<int>(numChannels);
        param_.numGroups = static_cast<int>(sizes.size());
        param_.groupChannels.assign(sizes.begin(), sizes.end());
        param_.groupPruneNum.assign(counts.begin(), counts.end());
        return OkStatus();
    }

    Status Call(OpKernelContext* context) override {
        std::vector<const T*> tensors;
        std::vector<int> lengths;
        std::vector<int> innerJumps;
        for (int i = 0; i < context->num_inputs(); ++i) {
            const Tensor& tensor = context->input(i);
            int length = 0;
            TF_RETURN_IF_ERROR(CountOf(tensor, length));
            Channels channels;
            TF_RETURN_IF_ERROR(ChannelsOf(tensor, axes_[i], channels));
            if (length == 0 || channels.count != param_.numChannels) {
                return errors::InvalidArgument("tensor ", i, " of shape ", tensor.shape().DebugString(),
                                               " does not hold elements of ", param_.numChannels,
                                               " channels along axis ", axes_[i]);
            }
            tensors.push_back(tensor.flat<T>().data());
            lengths.push_back(length);
            innerJumps.push_back(channels.inner);
        }
        T* mask = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {param_.numChannels}, mask));
        // kest writes a mask for each group, and with several of them one more of all channels: the one wanted here.
        std::vector<T> ofGroups(param_.numGroups > 1 ? param_.numChannels : 0);
        std::vector<T*> masks;
        if (param_.numGroups > 1) {
            T* ofGroup = ofGroups.data();
            for (const unsigned int size : param_.groupChannels) {
                masks.push_back(ofGroup);
                ofGroup += size;
            }
        }
        masks.push_back(mask);
        return Run(
            [&] { return KestCommon::ComputeRemainOut<Device, T>()(tensors, lengths, innerJumps, param_, masks); });
    }

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
        const DimensionHandle channels = context->MakeDim(numChannels);
        context->set_output(0, context->Vector(channels));
        std::vector<int> axes;
        TF_RETURN_IF_ERROR(context->GetAttr("axes", &axes));
        const int numAxes = std::min(static_cast<int>(axes.size()), context->num_inputs());  // reported as well
        for (int i = 0; i < numAxes; ++i) TF_RETURN_IF_ERROR(MergeAxis(context, i, axes[i], channels));
        return OkStatus();
    })
    .Doc("1 for channels to keep, 0 for those of the smallest norms of each group.");
REGISTER_FLOATING("KestChannelPruneMask", ChannelPruneMaskOp);

}  // namespace
}  // namespace kest_ops
