c2ms_fuzz(confile confile.cpp adif)
c2ms_fuzz(frame frame.cpp adif)
c2ms_fuzz(frametext frametext.cpp adif)
c2ms_fuzz(strcodec strcodec.cpp adif)
