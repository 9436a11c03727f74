// The element `zorvface`: speech in, video of a talking face out.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define ZORV_TYPE_FACE (zorv_face_get_type())
G_DECLARE_FINAL_TYPE(ZorvFace, zorv_face, ZORV, FACE, GstElement)

GST_ELEMENT_REGISTER_DECLARE(zorvface)

G_END_DECLS
