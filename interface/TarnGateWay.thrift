// The gateway's RPC interface: what the browser client may call on port 9090.
namespace cpp TarnWwySrv

enum command_type {
  CREATE_PDF = 0,
  CONVERT_WITH_ASSISTANT = 1
}

service TarnGateWay {
  string get_version(),
  void send_command(1: command_type cmd,
                    2: string dms_connection,
                    3: string dms_location,
                    4: set<string> doc_refs)
}
