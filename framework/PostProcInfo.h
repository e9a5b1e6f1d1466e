// SPDX-License-Identifier: Apache-2.0
// The host framework's post-processing info interface: one record per
// post-processed capture request. Slot order is part of the binary interface.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <kycam/IMediator.h>
#include <kycam/TuningParamsBase.h>

class PostProcInfo {
  public:
    virtual ~PostProcInfo();                                                     // slots 0, 1
    virtual void setName(std::string name) = 0;                                  // 2
    virtual void setMediator(std::shared_ptr<kycam::IMediator> mediator) = 0;    // 3
    virtual std::string getName() const = 0;                                     // 4
    virtual std::shared_ptr<PostProcInfo> clone(bool needOwnDebugData) = 0;      // 5
    virtual std::shared_ptr<PostProcInfo> shallowClone(bool withDebugData) = 0;  // 6
    virtual bool needUpdateToKymeta() = 0;                                       // 7
    virtual std::shared_ptr<kycam::TuningParamsBase> createTuningParams() = 0;   // 8
    virtual void getTuningMetaBufs(kycam::TuningParamsBase& params,
                                   std::function<std::string()> nameFn, bool flag) = 0;  // 9
    virtual void setTuningMetaBufs(kycam::TuningParamsBase& params) = 0;                 // 10
    virtual void destroyTuningMetaBufs() = 0;                                            // 11
    virtual void releaseTuningMetaBufs(bool releaseDebugData) = 0;                       // 12
    virtual void createTuningMetaBufs() = 0;                                             // 13
    // Hooks for records that follow a request through the pipeline stages;
    // the framework's defaults do nothing.
    virtual void onPipelineStarted();   // 14
    virtual void onPipelineFinished();  // 15

  protected:
    PostProcInfo() = default;
    PostProcInfo(const PostProcInfo&) = default;
    PostProcInfo& operator=(const PostProcInfo&) = default;
};
