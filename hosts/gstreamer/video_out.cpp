#include "video_out.h"

namespace zorv::gst {
namespace {

/// BT.709 from 720 lines on, as the library's own choice.
const char* usualColorimetry(int height) {
    return height >= 720 ? GST_VIDEO_COLORIMETRY_BT709 : GST_VIDEO_COLORIMETRY_BT601;
}

void addYuv(GstCaps* caps, const char* format, int height) {
    const char* usual = usualColorimetry(height);
    const char* other = height >= 720 ? GST_VIDEO_COLORIMETRY_BT601 : GST_VIDEO_COLORIMETRY_BT709;
    for (const char* colorimetry : {usual, other}) {
        gst_caps_append_structure(
            caps, gst_structure_new("video/x-raw", "format", G_TYPE_STRING, format, "colorimetry",
                                    G_TYPE_STRING, colorimetry, nullptr));
    }
}

}  // namespace

GstCaps* VideoOut::possibleCaps(int width, int height) {
    GstCaps* caps = gst_caps_new_empty();
    addYuv(caps, "I420", height);
    addYuv(caps, "NV12", height);
    gst_caps_append_structure(
        caps, gst_structure_new("video/x-raw", "format", G_TYPE_STRING, "RGBA", nullptr));
    gst_caps_set_simple(caps, "width", G_TYPE_INT, width, "height", G_TYPE_INT, height, "framerate",
                        GST_TYPE_FRACTION, 25, 1, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1,
                        "interlace-mode", G_TYPE_STRING, "progressive", nullptr);
    return caps;
}

int VideoOut::pixels() const {
    switch (GST_VIDEO_INFO_FORMAT(&info_)) {
        case GST_VIDEO_FORMAT_NV12:
            return ZORV_PIXELS_NV12;
        case GST_VIDEO_FORMAT_RGBA:
            return ZORV_PIXELS_RGBA;
        default:
            return ZORV_PIXELS_I420;
    }
}

int VideoOut::matrix() const {
    return GST_VIDEO_INFO_COLORIMETRY(&info_).matrix == GST_VIDEO_COLOR_MATRIX_BT709
               ? ZORV_MATRIX_BT709
               : ZORV_MATRIX_BT601;
}

bool VideoOut::negotiate() {
    const bool asked = gst_pad_check_reconfigure(pad_);
    if (agreed_ && !asked) return true;
    agreed_ = chooseCaps();
    if (!agreed_) gst_pad_mark_reconfigure(pad_);
    return agreed_;
}

bool VideoOut::chooseCaps() {
    GstCaps* possible = possibleCaps(width_, height_);
    GstCaps* caps = gst_pad_peer_query_caps(pad_, possible);
    if (!caps) caps = gst_caps_ref(possible);
    gst_caps_unref(possible);
    if (gst_caps_is_empty(caps)) {
        gst_caps_unref(caps);
        return false;
    }
    caps = gst_caps_fixate(caps);
    const bool set = gst_video_info_from_caps(&info_, caps) &&
                     gst_pad_push_event(pad_, gst_event_new_caps(caps)) && choosePool(caps);
    gst_caps_unref(caps);
    return set;
}

/// The downstream's pool when it has one: frames are then written where they are wanted. A pool
/// that cannot have these frames gives way to one of our own.
bool VideoOut::choosePool(GstCaps* caps) {
    dropPool();
    GstQuery* query = gst_query_new_allocation(caps, TRUE);
    guint size = static_cast<guint>(info_.size), least = 0, most = 0;
    GstAllocator* allocator = nullptr;
    GstAllocationParams parameters;
    gst_allocation_params_init(&parameters);
    gboolean padded = FALSE;  // rows and planes may lie apart
    if (gst_pad_peer_query(pad_, query)) {
        if (gst_query_get_n_allocation_params(query) > 0) {
            gst_query_parse_nth_allocation_param(query, 0, &allocator, &parameters);
        }
        if (gst_query_get_n_allocation_pools(query) > 0) {
            gst_query_parse_nth_allocation_pool(query, 0, &pool_, &size, &least, &most);
        }
        padded = gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    }
    gst_query_unref(query);
    size = MAX(size, static_cast<guint>(info_.size));
    const auto start = [&] {
        GstStructure* config = gst_buffer_pool_get_config(pool_);
        gst_buffer_pool_config_set_params(config, caps, size, least, most);
        gst_buffer_pool_config_set_allocator(config, allocator, &parameters);
        if (padded) gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
        if (!gst_buffer_pool_set_config(pool_, config)) {
            // The pool changed what was asked for: good enough when it still fits.
            config = gst_buffer_pool_get_config(pool_);
            if (!gst_buffer_pool_config_validate_params(config, caps, size, least, most)) {
                gst_structure_free(config);
                return false;
            }
            if (!gst_buffer_pool_set_config(pool_, config)) return false;
        }
        return gst_buffer_pool_set_active(pool_, TRUE) == TRUE;
    };
    bool started = pool_ && start();
    if (!started) {
        gst_clear_object(&pool_);  // others may use it
        pool_ = gst_video_buffer_pool_new();
        most = 0;
        started = start();
    }
    if (allocator) gst_object_unref(allocator);
    return started;
}

void VideoOut::dropPool() {
    if (!pool_) return;
    gst_buffer_pool_set_active(pool_, FALSE);
    gst_object_unref(pool_);
    pool_ = nullptr;
}

GstBuffer* VideoOut::make(const std::function<bool(const Planes&)>& fill, GstFlowReturn& flow) {
    if (!negotiate()) {
        flow = GST_PAD_IS_FLUSHING(pad_) ? GST_FLOW_FLUSHING : GST_FLOW_NOT_NEGOTIATED;
        return nullptr;
    }
    GstBuffer* buffer = nullptr;
    flow = gst_buffer_pool_acquire_buffer(pool_, &buffer, nullptr);
    if (flow != GST_FLOW_OK) return nullptr;
    GstVideoFrame frame;
    flow = GST_FLOW_ERROR;
    if (gst_video_frame_map(&frame, &info_, buffer, GST_MAP_WRITE)) {
        Planes planes;
        planes.pixels = pixels();
        planes.matrix = matrix();
        for (guint i = 0; i < GST_VIDEO_FRAME_N_PLANES(&frame); ++i) {
            planes.plane[i] = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, i));
            planes.stride[i] = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, i);
        }
        try {
            flow = fill(planes) ? GST_FLOW_OK : GST_FLOW_CUSTOM_ERROR;
        } catch (...) {
            gst_video_frame_unmap(&frame);
            gst_buffer_unref(buffer);
            throw;
        }
        gst_video_frame_unmap(&frame);
    }
    if (flow == GST_FLOW_OK) return buffer;
    gst_buffer_unref(buffer);
    return nullptr;
}

}  // namespace zorv::gst
