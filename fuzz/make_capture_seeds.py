#!/usr/bin/env python3
# Seeds for fuzz_rtp and fuzz_capture: RTP that ffmpeg sends to a loopback
# port (G.711, G.722, Opus), and a SIP INVITE with SDP.
# usage: fuzz/make_capture_seeds.py OUT_DIR (run in a scratch folder)
import socket, subprocess, struct, os, sys, time
out = sys.argv[1]
os.makedirs(out + "/fuzz_rtp", exist_ok=True)
os.makedirs(out + "/fuzz_capture", exist_ok=True)
subprocess.run("ffmpeg -v error -y -f lavfi -i 'sine=frequency=220:duration=1' -ar 16000 -ac 1 -f s16le in16.raw", shell=True, check=True)
def grab(codec, extra, rate):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); port = s.getsockname()[1]
    s.settimeout(5)
    p = subprocess.Popen(f"ffmpeg -v error -y -f s16le -ar 16000 -ac 1 -i in16.raw -ar {rate} -c:a {codec} {extra} -rtpflags skip_rtcp -f rtp rtp://127.0.0.1:{port}", shell=True)
    pk = []
    try:
        while True:
            d, a = s.recvfrom(4096); pk.append(d); s.settimeout(1)
    except socket.timeout: pass
    p.wait(); return pk, port
def rtp_seed(sel, pk, n=12):
    b = bytes([sel])
    for d in pk[:n]: b += struct.pack("<HB", len(d), 20) + d
    return b
def frame(src, dst, sport, dport, payload):
    u = struct.pack(">HHHH", sport, dport, 8 + len(payload), 0) + payload
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(u), 1, 0, 64, 17, 0, bytes(src), bytes(dst)) + u
    return bytes(6) + bytes([0,1,2,3,4,5]) + b"\x08\x00" + ip
sdp = "v=0\r\no=- 1 1 IN IP4 10.0.0.1\r\ns=-\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\nm=audio 40000 RTP/AVP 0 8 9 111 101\r\na=rtpmap:111 opus/48000/2\r\na=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-16\r\n"
invite = ("INVITE sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/UDP 10.0.0.1:5060\r\nFrom: \"Alice\" <sip:alice@example.com>;tag=1\r\nTo: <sip:bob@example.com>\r\nCall-ID: seed@example.com\r\nCSeq: 1 INVITE\r\nContent-Type: application/sdp\r\nContent-Length: %d\r\n\r\n%s" % (len(sdp), sdp)).encode()
open(out + "/fuzz_capture/sip-invite", "wb").write(b"\x00" + invite)
for name, codec, extra, rate, sel in [("pcmu","pcm_mulaw","",8000,0),("pcma","pcm_alaw","",8000,1),("g722","g722","",16000,2),("opus","libopus","-b:a 24k -frame_duration 20",48000,6)]:
    pk, port = grab(codec, extra, rate)
    if not pk: print("no packets for", name); continue
    open(f"{out}/fuzz_rtp/{name}", "wb").write(rtp_seed(sel, pk))
    b = bytes([1])  # Ethernet
    fr = [frame([10,0,0,1],[10,0,0,2],5060,5060,invite)] + [frame([10,0,0,1],[10,0,0,2],40000,50000,d) for d in pk[:10]]
    for f in fr: b += struct.pack("<H", len(f)) + f
    open(f"{out}/fuzz_capture/{name}-call", "wb").write(b)
    print(name, len(pk))
