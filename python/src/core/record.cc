#include <kest/record/direct_writer.h>
#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/proto_simulator/record_writer.h>
#include <kest/record/record_lock.h>
#include <kest/record/record_update.h>

#include <cerrno>
#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// The lock of kest's own updates, for what they do not cover.
class UpdateLock {
public:
    UpdateLock() : semaphore_(KestTfOp::Initializer::GetInstance().semaphore) {
        while (sem_wait(&semaphore_) != 0 && errno == EINTR) {
        }
    }
    UpdateLock(const UpdateLock&) = delete;
    UpdateLock& operator=(const UpdateLock&) = delete;
    ~UpdateLock() { sem_post(&semaphore_); }

private:
    sem_t& semaphore_;
};

struct Root : kest_tf::InnerData {
    Root() : InnerData("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0) {}
};

/// The child `name`; null where it is missing or has no value.
template <typename T>
const T* Find(const kest_tf::Data& node, const char* name) {
    for (const auto& child : node.children) {
        if (child.first == name && child.second != nullptr && child.second->HasValue())
            return dynamic_cast<const T*>(child.second);
    }
    return nullptr;
}

template <typename T>
nb::object Scalar(const kest_tf::Data& node, const char* name) {
    const T* found = Find<T>(node, name);
    return found == nullptr ? nb::none() : nb::cast(found->scalar);
}

nb::bytes String(const kest_tf::Data& node, const char* name) {
    const auto* found = Find<kest_tf::StringData>(node, name);
    return found == nullptr ? nb::bytes("", 0) : Bytes(found->scalar);
}

/// The items as they lie in memory.
template <typename T>
nb::bytes Items(const kest_tf::Data& node, const char* name) {
    const auto* found = Find<kest_tf::ListData<T>>(node, name);
    return found == nullptr ? nb::bytes("", 0) : nb::bytes(found->items.data(), found->items.size() * sizeof(T));
}

nb::tuple Read(const nb::bytes& path) {
    Root root;
    const std::string file = Text(path);
    Run({"record.read", file}, [&] { return kest_tf::ParseRecordFile(file, root); });
    nb::list records;
    for (const kest_tf::RecordData* record : root.records) {
        const kest_tf::Data& value = *record->Value();  // records of the parser have one
        records.append(nb::make_tuple(String(*record, "key"), Scalar<kest_tf::FloatData>(value, "scale_d"),
                                      Scalar<kest_tf::IntData>(value, "offset_d"), Items<float>(value, "scale_w"),
                                      Items<int>(value, "offset_w"), Items<unsigned long>(value, "shift_bit"),
                                      Items<int>(value, "cluster"), Scalar<kest_tf::BoolData>(value, "skip_fusion"),
                                      String(value, "dst_type"), Items<float>(value, "tensor_balance_factor")));
    }
    nb::list pruneRecords;
    for (const kest_tf::RecordDataPrune* prune : root.pruneRecords) pruneRecords.append(Bytes(prune->content));
    return nb::make_tuple(records, pruneRecords);
}

nb::bytes CanonicalText(const nb::bytes& path) {
    Root root;
    std::string text;
    const std::string file = Text(path);
    Run({"record.canonical_text", file}, [&] {
        const int status = kest_tf::ParseRecordFile(file, root);
        if (status == STATUS_OK) text = root.Dump();
        return status;
    });
    return Bytes(text);
}

void Rewrite(const nb::bytes& path) {
    Root root;
    const std::string file = Text(path);
    Run({"record.rewrite", file}, [&] {
        const KestTfOp::RecordLock lock(file);
        int status = lock.Status();
        if (status == STATUS_OK) status = kest_tf::ParseRecordFile(file, root);
        return status == STATUS_OK ? kest_tf::WriteToRecordFile(root, file) : status;
    });
}

void UpdateData(const nb::bytes& path, const nb::bytes& layer, float scale, int offset, const nb::bytes& dstType) {
    const std::string file = Text(path), name = Text(layer), type = Text(dstType);
    Run({"record.update_data", file},
        [&] { return KestTfOp::WriteDataToRecordFile(&scale, &offset, name, file, type); });
}

void UpdateWeights(const nb::bytes& path, const nb::bytes& layer, const Input<float>& scale, const Input<int>& offset) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.update_weights", file}, [&] {
        return KestTfOp::WriteWeightToRecordFile(scale.data(), offset.data(), static_cast<int>(scale.size()), name,
                                                 file);
    });
}

void UpdateNuq(const nb::bytes& path, const nb::bytes& layer, const Input<float>& scale, const Input<int>& offset,
               const Input<int>& cluster) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.update_nuq", file}, [&] {
        return KestTfOp::WriteNuqRecordToFile(scale.data(), offset.data(), cluster.data(),
                                              static_cast<int>(scale.size()), static_cast<int>(cluster.size()), name,
                                              file);
    });
}

void UpdateShiftBits(const nb::bytes& path, const nb::bytes& layer, const Input<int>& shiftBits) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.update_shift_bits", file}, [&] {
        return KestTfOp::WriteShiftNToRecordFile(shiftBits.data(), static_cast<int>(shiftBits.size()), name, file);
    });
}

void UpdateBalanceFactors(const nb::bytes& path, const nb::bytes& layer, const Input<float>& factors) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.update_balance_factors", file}, [&] {
        return KestTfOp::WriteTensorBalanceFactorToRecordFile(factors.data(), static_cast<int>(factors.size()), name,
                                                              file);
    });
}

void InsertData(const nb::bytes& path, const nb::bytes& layer, float scale, int offset, int onnxType) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.insert_data", file}, [&] {
        const UpdateLock lock;
        return RecordScaleOffset(file, name, {1, &scale}, {1, &offset}, onnxType);
    });
}

void InsertWeights(const nb::bytes& path, const nb::bytes& layer, float scale, int offset) {
    const std::string file = Text(path), name = Text(layer);
    Run({"record.insert_weights", file}, [&] {
        const UpdateLock lock;
        return RecordScaleOffsetWeight(file, name, {1, &scale}, {1, &offset});
    });
}

template <typename T>
void InsertValues(const nb::bytes& path, const nb::bytes& layer, const nb::bytes& field, const Input<T>& values) {
    const std::string file = Text(path), name = Text(layer), fieldName = Text(field);
    Run({"record.insert_values", file}, [&] {
        const UpdateLock lock;
        return util::RecordRepeatData(file, name, std::vector<T>(values.data(), values.data() + values.size()),
                                      fieldName);
    });
}

template <typename T>
void BindInsertValues(nb::module_& module) {
    module.def("record_insert_values", InsertValues<T>, "path"_a, "layer"_a, "field"_a, "values"_a.noconvert());
}

}  // namespace

void BindRecord(nb::module_& module) {
    module.def("record_read", Read, "path"_a);
    module.def("record_canonical_text", CanonicalText, "path"_a);
    module.def("record_rewrite", Rewrite, "path"_a);
    module.def("record_update_data", UpdateData, "path"_a, "layer"_a, "scale"_a, "offset"_a, "dst_type"_a);
    module.def("record_update_weights", UpdateWeights, "path"_a, "layer"_a, "scale"_a.noconvert(),
               "offset"_a.noconvert());
    module.def("record_update_nuq", UpdateNuq, "path"_a, "layer"_a, "scale"_a.noconvert(), "offset"_a.noconvert(),
               "cluster"_a.noconvert());
    module.def("record_update_shift_bits", UpdateShiftBits, "path"_a, "layer"_a, "shift_bits"_a.noconvert());
    module.def("record_update_balance_factors", UpdateBalanceFactors, "path"_a, "layer"_a, "factors"_a.noconvert());
    module.def("record_insert_data", InsertData, "path"_a, "layer"_a, "scale"_a, "offset"_a, "onnx_type"_a);
    module.def("record_insert_weights", InsertWeights, "path"_a, "layer"_a, "scale"_a, "offset"_a);
    BindInsertValues<float>(module);
    BindInsertValues<int>(module);
}

}  // namespace core
