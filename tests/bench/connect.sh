#!/bin/bash
# What a person would write who had no service: the requests of a connect by curl, the tunnel by wg and ip.
#
#   connect.sh up URL TOKEN DEVICE SERVER KEY_FILE
#       prints "<step> <microseconds since 1970>" before each step, and when the server has answered
#   connect.sh down
set -euo pipefail

tunnel=byhand
bypassed=(site.telvor.test cp.telvor.test)

tell() {
  echo "$1 ${EPOCHREALTIME/./}"
}

ask() {
  curl -sSf --noproxy '*' -H "Authorization: Bearer $token" -H 'Content-Type: application/json' "$@"
}

# The first text of this key on standard input.
text_of() {
  grep -o "\"$1\":\"[^\"]*\"" | head -n 1 | cut -d '"' -f 4
}

bypass() {
  ip route add "$1/32" via "$gateway"
}

up() {
  local url=$1 token=$2 device=$3 server=$4 key_file=$5
  tell catalogue
  ask "$url/v1/servers/locations" >/dev/null
  tell device
  ask -d "{\"device_id\":\"$device\",\"name\":\"$device\",\"platform\":\"linux\"}" \
    "$url/v1/devices" >/dev/null
  tell key
  ask -X PUT -d "{\"wg_public_key\":\"$(wg pubkey <"$key_file")\"}" \
    "$url/v1/devices/$device/wg-key" >/dev/null
  tell server
  ask -X PUT -d "{\"wg_server_id\":\"$server\"}" "$url/v1/devices/$device/wg-server" >/dev/null
  tell profile
  profile=$(ask "$url/v1/devices/$device/wg-profile")
  tell tunnel
  entry=$(grep -o "\"server_id\":\"$server\"[^}]*" <<<"$profile")
  endpoint=$(text_of endpoint <<<"$entry")
  wireguard-go $tunnel >/dev/null 2>&1
  wg set $tunnel private-key "$key_file" peer "$(text_of server_public_key <<<"$entry")" \
    endpoint "$endpoint" allowed-ips 0.0.0.0/0 persistent-keepalive 25
  ip address add "$(text_of client_address <<<"$profile")" dev $tunnel
  ip link set $tunnel up
  tell routes
  gateway=$(ip route show default | awk '{ print $3; exit }')
  bypass "${endpoint%:*}"
  for host in "${bypassed[@]}"; do
    bypass "$(getent ahostsv4 "$host" | awk '{ print $1; exit }')"
  done
  ip route add 0.0.0.0/1 dev $tunnel
  ip route add 128.0.0.0/1 dev $tunnel
  tell handshake
  until [ "$(wg show $tunnel latest-handshakes | cut -f 2)" -gt 0 ]; do sleep 0.01; done
  tell end
}

down() {
  ip link delete $tunnel
  ip route show type unicast | grep ' via .* dev eth0' | grep -v '^default' | while read -r address _; do
    ip route delete "$address"
  done
}

command=$1
shift
"$command" "$@"
