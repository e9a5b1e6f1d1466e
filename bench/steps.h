// SPDX-License-Identifier: Apache-2.0
// Per-step accounting of a workload (workload.h) in its three forms: the
// heap allocations that each step makes beyond the platform's own, and the
// check that the forms make the same platform calls.
//
// A workload is a callable w(FormTag<F>{}, mark) that runs one lifecycle of
// form F, calling mark with each step's name and with null at the end.
#pragma once

#include <sim/journal.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <type_traits>
#include <vector>

#include "probes.h"
#include "workload.h"

namespace workload {

template <Form F>
using FormTag = std::integral_constant<Form, F>;

template <class W, class Mark>
void runForm(W& w, Form form, Mark&& mark) {
    switch (form) {
        case Form::Library:
            w(FormTag<Form::Library>{}, mark);
            break;
        case Form::Floor:
            w(FormTag<Form::Floor>{}, mark);
            break;
        case Form::Platform:
            w(FormTag<Form::Platform>{}, mark);
            break;
    }
}

struct Step {
    const char* name;
    long allocations;
};

// Allocations between one mark and the next; the bookkeeping's own are left
// out.
class StepAllocations {
  public:
    StepAllocations() { steps_.reserve(16); }

    void operator()(const char* step) {
        const long now = probe::counts().allocations;
        if (!steps_.empty()) {
            steps_.back().allocations = now - last_;
        }
        if (step != nullptr) {
            steps_.push_back({step, 0});
        }
        last_ = probe::counts().allocations;
    }

    const std::vector<Step>& steps() const { return steps_; }

  private:
    std::vector<Step> steps_;
    long last_ = 0;
};

// Allocations per step of the form, less those of the platform form from
// the same state of the simulation: what the record (or the floor) adds.
template <class W>
std::vector<Step> ownAllocations(W& w, Form form) {
    // Once each first, so that the simulation's books have grown to size.
    runForm(w, form, NoMark{});
    runForm(w, Form::Platform, NoMark{});
    settle();
    StepAllocations measured;
    runForm(w, form, measured);
    settle();
    StepAllocations platform;
    runForm(w, Form::Platform, platform);
    settle();
    std::vector<Step> own = measured.steps();
    if (own.size() != platform.steps().size()) {
        fprintf(stderr, "steps: the %s form has other steps than the platform's\n", formName(form));
        abort();
    }
    for (size_t i = 0; i < own.size(); ++i) {
        if (strcmp(own[i].name, platform.steps()[i].name) != 0) {
            fprintf(stderr, "steps: step %s against %s\n", own[i].name, platform.steps()[i].name);
            abort();
        }
        own[i].allocations -= platform.steps()[i].allocations;
    }
    return own;
}

template <class W>
std::vector<long> ownAllocationCounts(W& w, Form form) {
    std::vector<long> counts;
    for (const Step& step : ownAllocations(w, form)) {
        counts.push_back(step.allocations);
    }
    return counts;
}

inline long total(const std::vector<Step>& steps) {
    long sum = 0;
    for (const Step& step : steps) {
        sum += step.allocations;
    }
    return sum;
}

// The names of the steps, in order.
template <class W>
std::vector<const char*> stepNames(W& w) {
    std::vector<const char*> names;
    runForm(w, Form::Library, [&names](const char* step) {
        if (step != nullptr) {
            names.push_back(step);
        }
    });
    settle();
    return names;
}

// The platform operations of one lifecycle of each form, in call order.
template <class W>
std::vector<std::vector<std::string>> platformCalls(W& w) {
    const bool was = sim::journalEnabled();
    std::vector<std::vector<std::string>> calls;
    for (Form form : {Form::Library, Form::Floor, Form::Platform}) {
        sim::clearJournal();
        sim::setJournalEnabled(true);
        runForm(w, form, NoMark{});
        sim::setJournalEnabled(false);
        calls.push_back(sim::opSequence());
        // Clearing the journal forgets misuses too: none may go unseen.
        for (const std::string& misuse : sim::misuses()) {
            fprintf(stderr, "steps: the %s form: %s\n", formName(form), misuse.c_str());
            abort();
        }
        settle();
    }
    sim::clearJournal();
    sim::setJournalEnabled(was);
    return calls;
}

}  // namespace workload
