// One plug-in made of a record, on a platform in memory, with annotations that a test sets.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Vornik/VKKeys.h"
#include "tests/Support/Fakes.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd::testing {

using namespace Vornik;

struct FakeAnnotations : AnnotationSource {
  PlistValue annotation;
  PlistValue annotationForPlugIn(const VKDPlugIn&) override { return annotation; }
};

class PlugInFixture : public ::testing::Test {
 protected:
  std::shared_ptr<VKDPlugIn> make() { return VKDPlugIn::initWithALData(record, surroundings); }

  CapturedLog log;
  FakeServices device;
  FakeAnnotations annotations;
  VKDPlugIn::Surroundings surroundings{device.services(), &annotations};
  std::shared_ptr<FakeRecord> record = FakeRecord::appex("test.plugin");
};

}  // namespace vkd::testing
