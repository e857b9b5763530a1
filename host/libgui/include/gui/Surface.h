#pragma once

#include <gui/IGraphicBufferProducer.h>
#include <system/window.h>
#include <ui/ANativeObjectBase.h>
#include <utils/RefBase.h>

namespace android {

/** A producer dressed as a window. Only a carrier of the producer here: windows cannot be drawn to. */
class Surface : public ANativeObjectBase<ANativeWindow, Surface, RefBase> {
  public:
    explicit Surface(const sp<IGraphicBufferProducer>& bufferProducer, bool controlledByApp = false);

    /** The producer given at construction, null included. */
    sp<IGraphicBufferProducer> getIGraphicBufferProducer() const;

  protected:
    ~Surface() override = default;

  private:
    const sp<IGraphicBufferProducer> mGraphicBufferProducer;
};

}  // namespace android
