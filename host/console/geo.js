// A local metric frame around one point (the home point): east and north in
// metres on a flat tangent plane. Routes of a few kilometres stay within
// centimetres of the globe; the view and the route form both use this frame,
// so a waypoint typed in metres is drawn where the vehicle will fly it.

// Metres per degree of latitude on a sphere of the WGS-84 equatorial radius.
const metresPerDegree = (6378137 * Math.PI) / 180;

export class LocalFrame {
  /** The frame's origin, in degrees. */
  constructor(lat, lon) {
    if (!validLatLon(lat, lon)) throw new Error(`the origin ${lat}, ${lon} is not a position on the globe`);
    this.lat = lat;
    this.lon = lon;
    this.metresPerDegreeLon = metresPerDegree * Math.cos((lat * Math.PI) / 180);
  }

  /** {east, north} in metres of a position in degrees. */
  toLocal(lat, lon) {
    return { east: (lon - this.lon) * this.metresPerDegreeLon, north: (lat - this.lat) * metresPerDegree };
  }

  /** {lat, lon} in degrees of a point in metres. */
  toGlobal(east, north) {
    if (this.metresPerDegreeLon < 1e-6) throw new Error("no east-west direction at a pole");
    return { lat: this.lat + north / metresPerDegree, lon: this.lon + east / this.metresPerDegreeLon };
  }
}

/** True for finite numbers inside the globe's ranges. */
export function validLatLon(lat, lon) {
  return Number.isFinite(lat) && Number.isFinite(lon) && Math.abs(lat) <= 90 && Math.abs(lon) <= 180;
}
