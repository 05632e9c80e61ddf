// The plugin's element types.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_ZYN_VBG (gst_zyn_vbg_get_type())
G_DECLARE_FINAL_TYPE(GstZynVbg, gst_zyn_vbg, GST, ZYN_VBG, GstVideoFilter)

#define GST_TYPE_ZYN_VBG_PRESENTER (gst_zyn_vbg_presenter_get_type())
G_DECLARE_FINAL_TYPE(GstZynVbgPresenter, gst_zyn_vbg_presenter, GST, ZYN_VBG_PRESENTER, GstElement)

G_END_DECLS
