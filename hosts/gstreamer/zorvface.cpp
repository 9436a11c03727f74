#include "zorvface.h"

#include <gst/audio/audio.h>

#include <exception>
#include <memory>

#include "face_mode.h"
#include "video_out.h"

using zorv::gst::EngineKind;
using zorv::gst::FaceMode;
using zorv::gst::Mode;
using zorv::gst::Pads;
using zorv::gst::Settings;
using zorv::gst::VideoOut;

GST_DEBUG_CATEGORY_STATIC(zorv_face_debug);
#define GST_CAT_DEFAULT zorv_face_debug

struct _ZorvFace {
    GstElement parent;
    Pads pads;
    Settings* settings;               ///< under the object lock
    std::shared_ptr<FaceMode>* mode;  ///< likewise; null below PAUSED
};

enum {
    PROP_0,
    PROP_BUNDLE,
    PROP_MOTION_DIR,
    PROP_ENCODER,
    PROP_ENGINE,
    PROP_THREADS,
    PROP_EAGER,
    PROP_MODE,
    PROP_RATE,
    PROP_STEADY_MODEL,
    PROP_QOS,
};

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("audio/x-raw, format = (string) " GST_AUDIO_NE(
        F32) ", rate = (int) 16000, "
             "channels = (int) 1, layout = (string) interleaved; "
             "audio/x-raw, format = (string) " GST_AUDIO_NE(
                 S16) ", rate = (int) [ 8000, "
                      "48000 ], channels = (int) 1, layout = (string) interleaved"));
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) { I420, NV12, RGBA }, width = (int) [ 1, max "
                    "], height = (int) [ 1, max ], framerate = (fraction) 25/1"));
static GstStaticPadTemplate sound_template =
    GST_STATIC_PAD_TEMPLATE("sound", GST_PAD_SRC, GST_PAD_SOMETIMES,
                            GST_STATIC_CAPS("audio/x-raw, format = (string) " GST_AUDIO_NE(
                                S16) ", rate = (int) [ 8000, "
                                     "48000 ], channels = (int) 1, layout = (string) interleaved"));

#define zorv_face_parent_class parent_class
G_DEFINE_TYPE(ZorvFace, zorv_face, GST_TYPE_ELEMENT)
GST_ELEMENT_REGISTER_DEFINE(zorvface, "zorvface", GST_RANK_NONE, ZORV_TYPE_FACE)

static GType zorv_face_mode_get_type() {
    static const GEnumValue values[] = {
        {static_cast<gint>(Mode::kContinuous),
         "A frame for every 40 ms of sound, with its timestamp; live when upstream is",
         "continuous"},
        {static_cast<gint>(Mode::kLiveIdle),
         "Always live: idles without sound, timed by the pipeline's clock, sound on its own pad",
         "live-idle"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZorvFaceMode", values);
    return type;
}

static GType zorv_face_engine_get_type() {
    static const GEnumValue values[] = {
        {static_cast<gint>(EngineKind::kAuto), "By the files in motion-dir", "auto"},
        {static_cast<gint>(EngineKind::kMotion), "Motion engine", "motion"},
        {static_cast<gint>(EngineKind::kExpression), "Expression engine", "a2x"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZorvFaceEngine", values);
    return type;
}

namespace zorv::gst {

void startStream(GstPad* pad, GstElement* element, GstPad* sink, const char* name) {
    gchar* id = gst_pad_create_stream_id(pad, element, name);
    GstEvent* event = gst_event_new_stream_start(id);
    g_free(id);
    guint group = 0;
    GstEvent* upstream = gst_pad_get_sticky_event(sink, GST_EVENT_STREAM_START, 0);
    if (!upstream || !gst_event_parse_group_id(upstream, &group)) group = gst_util_group_id_next();
    if (upstream) gst_event_unref(upstream);
    gst_event_set_group_id(event, group);
    gst_pad_push_event(pad, event);
}

}  // namespace zorv::gst

/// Queries and events may come from any thread while the element closes: they keep what they use.
static std::shared_ptr<FaceMode> mode_of(ZorvFace* self) {
    GST_OBJECT_LOCK(self);
    std::shared_ptr<FaceMode> mode = *self->mode;
    GST_OBJECT_UNLOCK(self);
    return mode;
}

static void set_mode(ZorvFace* self, std::shared_ptr<FaceMode> mode) {
    GST_OBJECT_LOCK(self);
    self->mode->swap(mode);
    GST_OBJECT_UNLOCK(self);
}

static GstCaps* face_caps(ZorvFace* self, GstPad* pad) {
    const auto mode = mode_of(self);
    if (!mode) return gst_pad_get_pad_template_caps(pad);
    return pad == self->pads.video ? VideoOut::possibleCaps(mode->width(), mode->height())
                                   : mode->soundCaps();
}

static gboolean face_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    ZorvFace* self = ZORV_FACE(parent);
    switch (GST_QUERY_TYPE(query)) {
        case GST_QUERY_CAPS: {
            GstCaps* filter = nullptr;
            gst_query_parse_caps(query, &filter);
            GstCaps* caps = face_caps(self, pad);
            if (filter) {
                GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
                gst_caps_unref(caps);
                caps = both;
            }
            gst_query_set_caps_result(query, caps);
            gst_caps_unref(caps);
            return TRUE;
        }
        case GST_QUERY_ACCEPT_CAPS: {
            GstCaps* asked = nullptr;
            gst_query_parse_accept_caps(query, &asked);
            GstCaps* caps = face_caps(self, pad);
            gst_query_set_accept_caps_result(query, gst_caps_can_intersect(asked, caps));
            gst_caps_unref(caps);
            return TRUE;
        }
        case GST_QUERY_LATENCY:
            if (const auto mode = mode_of(self); mode && pad != self->pads.sink) {
                return mode->latency(query);
            }
            break;
        default:
            break;
    }
    return gst_pad_query_default(pad, parent, query);
}

static GstFlowReturn face_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer) {
    const auto mode = mode_of(ZORV_FACE(parent));
    if (mode && gst_pad_has_current_caps(pad)) return mode->chain(buffer);
    gst_buffer_unref(buffer);
    return mode ? GST_FLOW_NOT_NEGOTIATED : GST_FLOW_FLUSHING;
}

static gboolean face_sink_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    ZorvFace* self = ZORV_FACE(parent);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        GstCaps* taken = face_caps(self, pad);
        const bool fits = gst_caps_can_intersect(caps, taken);
        gst_caps_unref(taken);
        if (!fits) {
            gst_event_unref(event);
            return FALSE;
        }
    }
    if (const auto mode = mode_of(self)) return mode->sinkEvent(event);
    gst_event_unref(event);
    return FALSE;
}

static gboolean face_src_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    if (const auto mode = mode_of(ZORV_FACE(parent))) return mode->videoEvent(event);
    return gst_pad_event_default(pad, parent, event);
}

/// What the application sends to the element itself, an interrupt say, goes the way of events from
/// downstream.
static gboolean face_send_event(GstElement* element, GstEvent* event) {
    const auto mode = mode_of(ZORV_FACE(element));
    if (mode && GST_EVENT_TYPE(event) >= GST_EVENT_CUSTOM_UPSTREAM) return mode->videoEvent(event);
    return GST_ELEMENT_CLASS(parent_class)->send_event(element, event);
}

static void face_add_sound_pad(ZorvFace* self) {
    GstPad* pad = gst_pad_new_from_static_template(&sound_template, "sound");
    gst_pad_set_query_function(pad, face_query);
    gst_pad_set_event_function(pad, face_src_event);
    gst_pad_use_fixed_caps(pad);
    gst_pad_set_active(pad, TRUE);
    self->pads.sound = pad;
    gst_element_add_pad(GST_ELEMENT(self), pad);
}

static void face_remove_sound_pad(ZorvFace* self) {
    if (!self->pads.sound) return;
    gst_pad_set_active(self->pads.sound, FALSE);
    gst_element_remove_pad(GST_ELEMENT(self), self->pads.sound);
    self->pads.sound = nullptr;
}

static bool face_open(ZorvFace* self) {
    GST_OBJECT_LOCK(self);
    const Settings settings = *self->settings;
    GST_OBJECT_UNLOCK(self);
    if (settings.bundle.empty() || settings.motionDir.empty()) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("bundle and motion-dir are required"),
                          (nullptr));
        return false;
    }
    std::shared_ptr<FaceMode> mode;
    try {
        mode = settings.mode == Mode::kContinuous ? zorv::gst::openContinuous(settings)
                                                  : zorv::gst::openLiveIdle(settings);
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("%s", error.what()), (nullptr));
        return false;
    }
    if (mode->isLive()) face_add_sound_pad(self);
    mode->prepare(self->pads);
    set_mode(self, mode);
    return true;
}

static void face_close(ZorvFace* self) {
    const auto mode = mode_of(self);
    if (!mode) return;
    mode->stop();
    set_mode(self, nullptr);
    face_remove_sound_pad(self);
}

static GstStateChangeReturn face_change_state(GstElement* element, GstStateChange change) {
    ZorvFace* self = ZORV_FACE(element);
    switch (change) {
        case GST_STATE_CHANGE_READY_TO_PAUSED:
            if (!face_open(self)) return GST_STATE_CHANGE_FAILURE;
            break;
        case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
            mode_of(self)->pause();
            break;
        case GST_STATE_CHANGE_PAUSED_TO_READY:
            mode_of(self)->unlock();
            break;
        default:
            break;
    }
    GstStateChangeReturn result = GST_ELEMENT_CLASS(parent_class)->change_state(element, change);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (change == GST_STATE_CHANGE_READY_TO_PAUSED) face_close(self);
        return result;
    }
    switch (change) {
        case GST_STATE_CHANGE_READY_TO_PAUSED:
        case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
            if (mode_of(self)->isLive()) result = GST_STATE_CHANGE_NO_PREROLL;
            break;
        case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
            mode_of(self)->play();
            break;
        case GST_STATE_CHANGE_PAUSED_TO_READY:
            face_close(self);
            break;
        default:
            break;
    }
    return result;
}

static void face_set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    ZorvFace* self = ZORV_FACE(object);
    const auto text = [value] {
        const gchar* given = g_value_get_string(value);
        return std::string(given ? given : "");
    };
    GST_OBJECT_LOCK(self);
    Settings& settings = *self->settings;
    switch (id) {
        case PROP_BUNDLE:
            settings.bundle = text();
            break;
        case PROP_MOTION_DIR:
            settings.motionDir = text();
            break;
        case PROP_ENCODER:
            settings.encoder = text();
            break;
        case PROP_ENGINE:
            settings.engine = static_cast<EngineKind>(g_value_get_enum(value));
            break;
        case PROP_THREADS:
            settings.threads = g_value_get_int(value);
            break;
        case PROP_EAGER:
            settings.eager = g_value_get_int(value);
            break;
        case PROP_MODE:
            settings.mode = static_cast<Mode>(g_value_get_enum(value));
            break;
        case PROP_RATE:
            settings.rate = g_value_get_int(value);
            break;
        case PROP_STEADY_MODEL:
            settings.steadyModel = text();
            break;
        case PROP_QOS:
            settings.qos = g_value_get_boolean(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void face_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    ZorvFace* self = ZORV_FACE(object);
    GST_OBJECT_LOCK(self);
    const Settings& settings = *self->settings;
    switch (id) {
        case PROP_BUNDLE:
            g_value_set_string(value, settings.bundle.c_str());
            break;
        case PROP_MOTION_DIR:
            g_value_set_string(value, settings.motionDir.c_str());
            break;
        case PROP_ENCODER:
            g_value_set_string(value, settings.encoder.c_str());
            break;
        case PROP_ENGINE:
            g_value_set_enum(value, static_cast<gint>(settings.engine));
            break;
        case PROP_THREADS:
            g_value_set_int(value, settings.threads);
            break;
        case PROP_EAGER:
            g_value_set_int(value, settings.eager);
            break;
        case PROP_MODE:
            g_value_set_enum(value, static_cast<gint>(settings.mode));
            break;
        case PROP_RATE:
            g_value_set_int(value, settings.rate);
            break;
        case PROP_STEADY_MODEL:
            g_value_set_string(value, settings.steadyModel.c_str());
            break;
        case PROP_QOS:
            g_value_set_boolean(value, settings.qos);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void face_finalize(GObject* object) {
    ZorvFace* self = ZORV_FACE(object);
    delete self->settings;
    delete self->mode;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

static void zorv_face_class_init(ZorvFaceClass* klass) {
    GST_DEBUG_CATEGORY_INIT(zorv_face_debug, "zorvface", 0, "speech to talking-face video");
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = face_set_property;
    object->get_property = face_get_property;
    object->finalize = face_finalize;

    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                    GST_PARAM_MUTABLE_READY);
    const auto add = [object](guint id, GParamSpec* spec) {
        g_object_class_install_property(object, id, spec);
    };
    add(PROP_BUNDLE,
        g_param_spec_string("bundle", "Bundle", "Directory of the prepared subject", "", flags));
    add(PROP_MOTION_DIR,
        g_param_spec_string("motion-dir", "Motion directory",
                            "Directory of the motion or expression engine's models", "", flags));
    add(PROP_ENCODER,
        g_param_spec_string("encoder", "Speech encoder",
                            "Speech encoder file of the expression engine, shared by the process "
                            "(empty: the environment variable W2V_ONNX)",
                            "", flags));
    add(PROP_ENGINE, g_param_spec_enum("engine", "Engine", "What turns speech into motion",
                                       zorv_face_engine_get_type(), 0, flags));
    add(PROP_THREADS,
        g_param_spec_int("threads", "Threads", "Threads of one model run", 1, 64, 1, flags));
    add(PROP_EAGER,
        g_param_spec_int(
            "eager", "Eager",
            "Frames (40 ms) of sound per provisional pass of the motion engine (0: "
            "whole chunks, final values, 3.3 s later; -1: adaptive; live-idle takes values "
            "below 1 as adaptive)",
            -1, 8, 1, flags));
    add(PROP_MODE, g_param_spec_enum("mode", "Mode", "When frames are made",
                                     zorv_face_mode_get_type(), 0, flags));
    add(PROP_RATE, g_param_spec_int("rate", "Rate",
                                    "Rate of the sound in live-idle mode in Hz, a multiple of 25",
                                    8000, 48000, 48000, flags));
    add(PROP_STEADY_MODEL,
        g_param_spec_string("steady-model", "Steady model",
                            "Key of the second renderer of live-idle mode, which makes several "
                            "frames at once (empty: b24_fp32, -: none)",
                            "", flags));
    add(PROP_QOS, g_param_spec_boolean("qos", "Quality of service",
                                       "Leave out frames that would come too late downstream "
                                       "(continuous mode)",
                                       TRUE, flags));

    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    element->change_state = face_change_state;
    element->send_event = face_send_event;
    gst_element_class_add_static_pad_template(element, &sink_template);
    gst_element_class_add_static_pad_template(element, &src_template);
    gst_element_class_add_static_pad_template(element, &sound_template);
    gst_element_class_set_static_metadata(element, "Talking face", "Converter/Audio/Video",
                                          "Turns speech into video of a talking face", "zorv_core");
    gst_type_mark_as_plugin_api(zorv_face_mode_get_type(), static_cast<GstPluginAPIFlags>(0));
    gst_type_mark_as_plugin_api(zorv_face_engine_get_type(), static_cast<GstPluginAPIFlags>(0));
}

static void zorv_face_init(ZorvFace* self) {
    self->settings = new Settings;
    self->mode = new std::shared_ptr<FaceMode>;
    self->pads.element = GST_ELEMENT(self);
    self->pads.sink = gst_pad_new_from_static_template(&sink_template, "sink");
    gst_pad_set_chain_function(self->pads.sink, face_chain);
    gst_pad_set_event_function(self->pads.sink, face_sink_event);
    gst_pad_set_query_function(self->pads.sink, face_query);
    gst_element_add_pad(GST_ELEMENT(self), self->pads.sink);
    self->pads.video = gst_pad_new_from_static_template(&src_template, "src");
    gst_pad_set_event_function(self->pads.video, face_src_event);
    gst_pad_set_query_function(self->pads.video, face_query);
    gst_element_add_pad(GST_ELEMENT(self), self->pads.video);
}

static gboolean plugin_init(GstPlugin* plugin) {
    return GST_ELEMENT_REGISTER(zorvface, plugin);
}

#define PACKAGE "zorv_core"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zorv, "Speech to talking-face video",
                  plugin_init, ZORV_PLUGIN_VERSION, "unknown", "zorv_core", "zorv_core")
