#include <kest/record/proto_simulator/record_data_internal.h>
#include <kest/record/proto_simulator/record_proto.h>
#include <kest/record/proto_simulator/record_writer.h>
#include <kest/record/record_lock.h>
#include <kest/record/record_update.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string_view>
#include <utility>

namespace KestTfOp {

namespace {

/// The first record whose key has a value and equals `layerName`, null if there is none.
kest_tf::RecordData* FindRecord(const kest_tf::InnerData& root, const std::string& layerName) {
    for (kest_tf::RecordData* record : root.records) {
        const auto* key = kest_tf::FindChild<kest_tf::StringData>(*record, "key");
        if (key != nullptr && key->HasValue() && key->scalar == layerName) return record;
    }
    return nullptr;
}

/// Whether the braces of a block still match with `text` in it: outside double quotes, those in `text` do.
bool IsBalanced(std::string_view text) {
    bool isQuoted = false;
    long depth = 0;
    for (const char c : text) {
        if (c == '"') isQuoted = !isQuoted;
        if (isQuoted || (c != '{' && c != '}')) continue;
        depth += c == '{' ? 1 : -1;
        if (depth < 0) return false;
    }
    return !isQuoted && depth == 0;
}

/// Whether the parser would find all entries again: not with every text that a caller or an odd file brings along.
bool ReadsBack(const kest_tf::InnerData& root) {
    const auto isOneToken = [](const kest_tf::StringData* text) {
        return text == nullptr ||
               (text->scalar.find_first_of(" \t\n\r") == std::string::npos && IsBalanced('"' + text->scalar + '"'));
    };
    for (const kest_tf::RecordData* record : root.records) {
        if (!isOneToken(kest_tf::FindChild<kest_tf::StringData>(*record, "key")) ||
            !isOneToken(kest_tf::FindChild<kest_tf::StringData>(*record->Value(), "dst_type"))) {
            return false;
        }
    }
    return std::all_of(root.pruneRecords.begin(), root.pruneRecords.end(),
                       [](const kest_tf::RecordDataPrune* prune) { return IsBalanced(prune->content); });
}

/// The sequence of all updates. `change` is called with the layer's value block and whether its record is new.
template <typename Change>
int UpdateRecord(const std::string& layerName, const std::string& recordFile, Change change) {
    kest_tf::InnerData root("InnerScaleOffsetRecord", kest_tf::FIELD_MESSAGE, 0);
    const RecordLock lock(recordFile);  // goes before the tree does
    if (lock.Status() != STATUS_OK) return lock.Status();
    const int status = kest_tf::ParseRecordFile(recordFile, root);
    if (status != STATUS_OK) return status;

    kest_tf::RecordData* record = FindRecord(root, layerName);
    const bool isNew = record == nullptr;
    if (isNew) {
        record = root.AddRecord();
        if (record == nullptr) return RECORD_DATA_ERROR;
        record->SetKey(layerName);
    }
    change(*record->Value(), isNew);  // records of the parser and of AddRecord have one
    return ReadsBack(root) ? kest_tf::WriteToRecordFile(root, recordFile) : RECORD_DATA_ERROR;
}

/// Replaces the items of the list `name`, of class List.
template <typename List, typename T>
void SetList(const kest_tf::ValueData& value, const char* name, const T* items, int length) {
    List* list = kest_tf::FindChild<List>(value, name);
    if (list == nullptr) return;
    list->ClearData();
    for (int i = 0; i < length; ++i) {
        // As the list's own type: int to unsigned long extends the sign.
        auto item = static_cast<typename decltype(list->items)::value_type>(items[i]);
        list->AddData(name, item);
    }
}

}  // namespace

int WriteDataToRecordFile(const float* scaleD, const int* offsetD, const std::string& layerName,
                          const std::string& recordFile, std::string dstType) {
    return UpdateRecord(layerName, recordFile, [&](const kest_tf::ValueData& value, bool isNew) {
        auto* text = kest_tf::FindChild<kest_tf::StringData>(value, "dst_type");
        if (isNew && dstType != "hide" && text != nullptr) text->AddData("dst_type", dstType);
        value.SetScaleD(*scaleD);
        value.SetOffsetD(*offsetD);
    });
}

int WriteWeightToRecordFile(const float* scaleW, const int* offsetW, int length, const std::string& layerName,
                            const std::string& recordFile) {
    return UpdateRecord(layerName, recordFile, [&](const kest_tf::ValueData& value, bool) {
        value.ClearScaleW();
        for (int i = 0; i < length; ++i) value.AddScaleW(scaleW[i]);
        value.ClearOffsetW();
        for (int i = 0; i < length; ++i) value.AddOffsetW(offsetW[i]);
    });
}

int WriteNuqRecordToFile(const float* scaleW, const int* offsetW, const int* cluster, int scaleLength,
                         int clusterLength, const std::string& layerName, const std::string& recordFile) {
    return UpdateRecord(layerName, recordFile, [&](const kest_tf::ValueData& value, bool) {
        AddScaleOffsetCluster(value, scaleW, offsetW, cluster, scaleLength, clusterLength);
    });
}

int WriteShiftNToRecordFile(const int* shiftBits, int length, const std::string& layerName,
                            const std::string& recordFile) {
    return UpdateRecord(layerName, recordFile, [&](const kest_tf::ValueData& value, bool) {
        SetList<kest_tf::UnsignedIntListData>(value, "shift_bit", shiftBits, length);
    });
}

int WriteTensorBalanceFactorToRecordFile(const float* balanceFactor, int length, const std::string& layerName,
                                         const std::string& recordFile) {
    return UpdateRecord(layerName, recordFile, [&](const kest_tf::ValueData& value, bool) {
        SetList<kest_tf::FloatListData>(value, "tensor_balance_factor", balanceFactor, length);
    });
}

void AddScaleOffsetCluster(const kest_tf::ValueData& value, const float* scaleW, const int* offsetW, const int* cluster,
                           int scaleLength, int clusterLength) {
    SetList<kest_tf::FloatListData>(value, "scale_w", scaleW, scaleLength);
    SetList<kest_tf::IntListData>(value, "offset_w", offsetW, scaleLength);
    SetList<kest_tf::IntListData>(value, "cluster", cluster, clusterLength);
}

void ConvertLayerName(std::string& name, const std::string& from, const std::string& to) {
    if (from.empty()) return;
    std::string converted;
    size_t begin = 0;
    for (size_t found; (found = name.find(from, begin)) != std::string::npos; begin = found + from.size()) {
        converted.append(name, begin, found - begin).append(to);
    }
    name = converted.append(name, begin, std::string::npos);
}

bool ValueCheck(float value) {
    const float magnitude = std::fabs(value);
    return !(magnitude < FLT_MIN) && !(magnitude > FLT_MAX);  // NaN is neither
}

template <typename T>
int ComputeDeqScale(T* deqScale, const T* scaleW, T scaleD, int length) {
    for (int i = 0; i < length; ++i) {
        deqScale[i] = scaleD * scaleW[i];
        if (!ValueCheck(deqScale[i])) {
            sem_post(&Initializer::GetInstance().semaphore);
            return DEQ_SCALE_ERROR;
        }
    }
    return STATUS_OK;
}

template KEST_EXPORT int ComputeDeqScale<float>(float* deqScale, const float* scaleW, float scaleD, int length);

}  // namespace KestTfOp
