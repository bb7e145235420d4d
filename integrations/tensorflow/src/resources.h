#ifndef KEST_TENSORFLOW_RESOURCES_H_
#define KEST_TENSORFLOW_RESOURCES_H_

#include <tensorflow/core/framework/resource_handle.h>
#include <tensorflow/core/framework/resource_mgr.h>

#include <utility>

#include "kest_ops.h"

// State that lasts across calls is a resource, which lives as long as a handle to it. Calls of concurrent executors
// wait for each other in the resource.

namespace kest_ops {

/// Output 0 becomes the handle of a new resource, each time that the operator runs.
template <typename Resource>
Status NewResource(OpKernelContext* context, Resource* resource) {
    auto handle = tensorflow::ResourceHandle::MakeRefCountingHandle(resource, context->device()->name());
    tensorflow::ResourceHandle* output = nullptr;
    TF_RETURN_IF_ERROR(Allocate(context, 0, {}, output));
    *output = std::move(handle);
    return OkStatus();
}

/// The resource whose handle is input 0.
template <typename Resource>
Status ResourceOf(OpKernelContext* context, tensorflow::core::RefCountPtr<Resource>& resource) {
    return tensorflow::LookupResource(context, tensorflow::HandleFromInput(context, 0), &resource);
}

}  // namespace kest_ops

#endif  // KEST_TENSORFLOW_RESOURCES_H_
