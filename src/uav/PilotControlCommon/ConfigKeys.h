#pragma once

// Dotted configuration keys. The spellings ("pawsswd", "gimal", "bettry") are the
// configuration's own and are kept.
namespace vlm::cfg {

// Station and vehicle settings, owned by the pilot control micro service.
inline constexpr const char* stationAppType = "station.app_type";
inline constexpr const char* stationDroneType = "station.drone_type";
inline constexpr const char* stationLinkType = "station.link_type";
inline constexpr const char* stationCommIp = "station.comm_ip";
inline constexpr const char* stationStationSn = "station.station_sn";
inline constexpr const char* stationCommRemoteIp = "station.comm_remote_ip";
inline constexpr const char* stationSerialPort = "station.serial_port";
inline constexpr const char* stationCommPort = "station.comm_port";
inline constexpr const char* stationBaudrate = "station.baudrate";
inline constexpr const char* stationForwardPort = "station.forward_port";
inline constexpr const char* stationWaypointMode = "station.waypoint_mode";
inline constexpr const char* stationNp208 = "station.np208";
inline constexpr const char* vehicleFirmwareUpdateUrl = "vehicle.firmware_update_url";
inline constexpr const char* vehicleCommHeartRate = "vehicle.comm_heart_rate";
inline constexpr const char* vehicleHttpSrvPort = "vehicle.http_srv_port";
inline constexpr const char* vehicleAirborneLinkType = "vehicle.airborne_link_type";
inline constexpr const char* vehicleConnectType = "vehicle.connect_type";
inline constexpr const char* vehicleCommType = "vehicle.comm_type";
inline constexpr const char* vehicleBigEndian = "vehicle.big_endian";
inline constexpr const char* vehiclePilotId = "vehicle.pilot_id";
inline constexpr const char* vehicleVehicleType = "vehicle.vehicle_type";
inline constexpr const char* vehiclePushRouteUrl = "vehicle.push_route_url";
inline constexpr const char* vehicleMultiMartinIp = "vehicle.multi_martin_ip";
inline constexpr const char* vehicleMartinIp = "vehicle.martin_ip";
inline constexpr const char* vehicleMartinRecvPort = "vehicle.martin_recv_port";
inline constexpr const char* vehicleMartinSendPort = "vehicle.martin_send_port";
inline constexpr const char* vehicleSixAxisArSeatGrade = "vehicle.six_axis_ar_seat_grade";
inline constexpr const char* vehicleSixAxisArSeat = "vehicle.six_axis_ar_seat";
inline constexpr const char* vehicleLinkManufacturer = "vehicle.link_manufacturer";
inline constexpr const char* vehicleChadaLanControlPort = "vehicle.chada_lan_control_port";
inline constexpr const char* vehicleChadaLanTelePort = "vehicle.chada_lan_tele_port";
inline constexpr const char* vehicleChadaProjectSwitch = "vehicle.chada_project_switch";
inline constexpr const char* vehicleChadaUavIp = "vehicle.chada_uav_ip";
inline constexpr const char* vehicleChadaStartId = "vehicle.chada_start_id";
inline constexpr const char* vehicleChadaUavTelePort = "vehicle.chada_uav_tele_port";
inline constexpr const char* vehicleChadaWlanControlPort = "vehicle.chada_wlan_control_port";
inline constexpr const char* vehicleChadaWlanIp = "vehicle.chada_wlan_ip";
inline constexpr const char* vehicleChadaWlanTelePort = "vehicle.chada_wlan_tele_port";
inline constexpr const char* debugSwitch = "debug.switch";
inline constexpr const char* djiRemoteCtlIp = "dji.dji_remote_ctl_ip";
inline constexpr const char* commsdkGcsType = "commsdk.gcs_type";
inline constexpr const char* commsdkVt40PowerA = "commsdk.vt40_power_a";
inline constexpr const char* commsdkVt20CamGimbal = "commsdk.vt20_cam_gimbal";
inline constexpr const char* commsdkTransmitForward = "commsdk.transmit_forward";
inline constexpr const char* commsdkTransmitRecv = "commsdk.transmit_recv";
inline constexpr const char* commsdkGcsDoubleLink = "commsdk.gcs_double_link";
inline constexpr const char* commsdkFlagGps = "commsdk.flag_gps";
inline constexpr const char* commsdkControlGimal = "commsdk.control_gimal";
inline constexpr const char* commsdkFlagHeartbeat = "commsdk.flag_heartbeat";
inline constexpr const char* commsdkLinkModeUdp = "commsdk.link_mode_udp";
inline constexpr const char* commsdkSmartBettry = "commsdk.smart_bettry";
inline constexpr const char* commsdkFlagTransmission = "commsdk.flag_transmission";

// Broker settings written by the default routine ("mqtts.*").
inline constexpr const char* mqttsUserName = "mqtts.user_name";
inline constexpr const char* mqttsPawsswd = "mqtts.pawsswd";
inline constexpr const char* mqttsServerUri = "mqtts.server_uri";
inline constexpr const char* mqttsQos = "mqtts.qos";

// Broker settings the plug-in reads from the host configuration itself.
inline constexpr const char* mqttServerUri = "mqtt.server_uri";
inline constexpr const char* mqttUserName = "mqtt.user_name";
inline constexpr const char* mqttPawsswd = "mqtt.pawsswd";
inline constexpr const char* mqttServerUriDefault = "127.0.0.1:1883";

} // namespace vlm::cfg
