// SPDX-License-Identifier: Apache-2.0
// Mediator between the host framework's post-processing stages.
#pragma once

namespace kycam {

class IMediator {
  public:
    virtual ~IMediator();
};

}  // namespace kycam
